#include "Termkit/graphics/KittyPayloadLoader.h"

#include <climits>
#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Termkit/graphics/KittyGraphics.h"

namespace termkit {

namespace {

// A path or object name is short; anything longer is not one.
constexpr size_t kMaxPathBytes = 4096;

bool startsWith(std::string_view s, std::string_view prefix) {
    return s.substr(0, prefix.size()) == prefix;
}

bool isUnder(const std::string& path, const std::string& dir) {
    if (dir.empty())
        return false;
    const std::string withSlash = dir.back() == '/' ? dir : dir + "/";
    return startsWith(path, withSlash);
}

std::string resolved(const std::string& path) {
    char buffer[PATH_MAX];
    if (::realpath(path.c_str(), buffer) == nullptr)
        return {};
    return buffer;
}

// The part of a file or object to take: from `dataOffset`, `dataSize` bytes or to the end.
bool readRange(int fd, size_t fileSize, const KittyGraphicsControl& control, std::vector<uint8_t>& out) {
    if (control.dataOffset < 0 || control.dataSize < 0 || size_t(control.dataOffset) > fileSize)
        return false;
    const size_t offset = size_t(control.dataOffset);
    size_t want = control.dataSize > 0 ? size_t(control.dataSize) : fileSize - offset;
    if (want > fileSize - offset || want > kKittyPayloadLimitBytes)
        return false;
    out.resize(want);
    size_t done = 0;
    while (done < want) {
        const ssize_t n = ::pread(fd, out.data() + done, want - done, off_t(offset + done));
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

std::string loadFile(const KittyGraphicsControl& control, const std::string& path,
                     std::vector<uint8_t>& out) {
    const std::string real = resolved(path);
    if (real.empty())
        return "EINVAL: bad path";
    const bool device = startsWith(real, "/proc/") || startsWith(real, "/sys/") ||
                        (startsWith(real, "/dev/") && !startsWith(real, "/dev/shm/"));
    if (device)
        return "EINVAL: bad path";
    const bool temporary = control.transmission == 't';
    if (temporary && (!isInTemporaryFolder(real) || std::filesystem::path(real).filename().string().find(
                                                        kKittyTempFileMarker) == std::string::npos))
        return "EINVAL: bad temp path";
    const int fd = ::open(real.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    std::string error;
    struct stat info {};
    if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
        !readRange(fd, size_t(info.st_size), control, out))
        error = "EINVAL: bad payload";
    if (fd >= 0)
        ::close(fd);
    // A temporary file is the terminal's to remove once it has been looked at.
    if (temporary)
        ::unlink(real.c_str());
    return error;
}

std::string loadSharedMemory(const KittyGraphicsControl& control, const std::string& name,
                             std::vector<uint8_t>& out) {
    const int fd = ::shm_open(name.c_str(), O_RDONLY, 0);
    if (fd < 0)
        return "EINVAL: bad payload";
    std::string error;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !readRange(fd, size_t(info.st_size), control, out))
        error = "EINVAL: bad payload";
    ::close(fd);
    ::shm_unlink(name.c_str());
    return error;
}

} // namespace

bool isInTemporaryFolder(const std::string& path) {
    // The folders, resolved as the file's own path is.
    std::vector<std::string> folders = {resolved("/tmp"), resolved("/dev/shm")};
    std::error_code error;
    const auto system = std::filesystem::temp_directory_path(error);
    if (!error)
        folders.push_back(resolved(system.string()));
    for (const std::string& folder : folders)
        if (isUnder(path, folder))
            return true;
    return false;
}

std::string loadKittyPayload(const KittyGraphicsControl& control, std::string_view base64,
                             std::vector<uint8_t>& out) {
    if (control.transmission == 'd') {
        auto decoded = decodeBase64(base64, kKittyPayloadLimitBytes);
        if (!decoded)
            return "EINVAL: bad payload";
        out = std::move(*decoded);
        return {};
    }
    if (control.transmission != 'f' && control.transmission != 't' && control.transmission != 's')
        return "ENOTSUP: unsupported transmission";
    const auto name = decodeBase64(base64, kMaxPathBytes);
    if (!name || name->empty())
        return "EINVAL: bad path";
    const std::string text(name->begin(), name->end());
    if (text.find('\0') != std::string::npos)
        return "EINVAL: bad path";
    if (control.transmission == 's')
        return loadSharedMemory(control, text, out);
    return loadFile(control, text, out);
}

size_t kittyExpectedDataSize(const KittyGraphicsControl& control) {
    if (control.width <= 0 || control.height <= 0 || (control.format != 24 && control.format != 32))
        return 0;
    return size_t(control.width) * size_t(control.height) * size_t(control.format / 8);
}

std::string decodeKittyPayloadData(const KittyGraphicsControl& control, std::vector<uint8_t> bytes,
                                   RgbaImage& out) {
    if (control.compression) {
        if (*control.compression != 'z')
            return "EINVAL: bad payload";
        auto inflated = decompressZlib(bytes, kKittyPayloadLimitBytes);
        if (!inflated)
            return "EINVAL: bad payload";
        bytes = std::move(*inflated);
    }
    if (control.format == 100) {
        auto image = decodePngToRgba(bytes, kKittyPayloadLimitBytes);
        if (!image)
            return "EINVAL: bad payload";
        out = std::move(*image);
        return {};
    }
    const size_t expected = kittyExpectedDataSize(control);
    if (expected == 0 || bytes.size() < expected ||
        uint64_t(control.width) * uint64_t(control.height) * 4 > kKittyPayloadLimitBytes)
        return "EINVAL: bad payload";
    out.width = control.width;
    out.height = control.height;
    if (control.format == 32) {
        bytes.resize(expected);
        out.rgba = std::move(bytes);
        return {};
    }
    const size_t pixels = size_t(control.width) * size_t(control.height);
    out.rgba.resize(pixels * 4);
    for (size_t i = 0; i < pixels; ++i) {
        out.rgba[i * 4] = bytes[i * 3];
        out.rgba[i * 4 + 1] = bytes[i * 3 + 1];
        out.rgba[i * 4 + 2] = bytes[i * 3 + 2];
        out.rgba[i * 4 + 3] = 0xFF;
    }
    return {};
}

} // namespace termkit
