#include "Termkit/engine/ScreenText.h"

#include "Termkit/engine/Terminal.h"

namespace termkit {

std::string rowText(const BufferLine& line, const CharacterTable& characters) {
    std::string out;
    const CharData* cells = line.cells();
    for (int col = 0; col < line.count(); ++col) {
        const CharData& cell = cells[col];
        if (cell.width == 0) {
            const bool rightHalf = col > 0 && cells[col - 1].width == 2;
            if (!rightHalf)
                out += ' ';
            continue;
        }
        if (cell.code == 0) {
            out += ' ';
        } else {
            characters.appendCharacter(cell.code, out);
        }
    }
    while (!out.empty() && out.back() == ' ')
        out.pop_back();
    return out;
}

std::vector<std::string> screenText(const Terminal& terminal) {
    const Buffer& b = terminal.buffer();
    std::vector<std::string> rows;
    for (ScreenRow r(0); r <= b.lastRow(); ++r)
        rows.push_back(rowText(b.screenLine(r), terminal.tables().characters));
    return rows;
}

std::string attributeRuns(const Terminal& terminal, ScreenRow row) {
    const BufferLine& line = terminal.buffer().screenLine(row);
    std::string out;
    int col = 0;
    while (col < line.count()) {
        const AttributeId id = line[col].attribute;
        int end = col;
        while (end + 1 < line.count() && line[end + 1].attribute == id)
            ++end;
        if (id != AttributeTable::kEmpty) {
            if (!out.empty())
                out += " | ";
            out += std::to_string(col) + "-" + std::to_string(end) + " " +
                   terminal.tables().attributes[id].toSgr();
        }
        col = end + 1;
    }
    return out;
}

std::string dumpScreen(const Terminal& terminal, bool withAttributes) {
    std::string out;
    for (const std::string& row : screenText(terminal))
        out += row + "\n";
    const auto [col, row] = terminal.getCursorLocation();
    out += "cursor " + std::to_string(row.value) + " " + std::to_string(col.value) + "\n";
    if (withAttributes) {
        out += "attrs\n";
        for (ScreenRow r(0); r.value < terminal.rows(); ++r) {
            const std::string runs = attributeRuns(terminal, r);
            if (!runs.empty())
                out += std::to_string(r.value) + ": " + runs + "\n";
        }
    }
    return out;
}

} // namespace termkit
