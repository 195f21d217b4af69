#include "support/RelayFixture.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QMessageAuthenticationCode>
#include <QRegularExpression>
#include <QTcpServer>
#include <QtEndian>

#include <csignal>
#include <sys/prctl.h>

RelayFixture::RelayFixture() : RelayFixture(Options{}) {}

RelayFixture::RelayFixture(Options options) : m_options(std::move(options)) {}

RelayFixture::~RelayFixture() {
    stop();
}

QString RelayFixture::serverScript() {
    return QDir(QStringLiteral(QUILLMERE_SOURCE_ROOT))
        .filePath(QStringLiteral("cloud_app/src/relay/server.py"));
}

QString RelayFixture::python() {
    return QStringLiteral(QUILLMERE_TEST_PYTHON);
}

QString RelayFixture::databasePath() const {
    return m_folder.filePath(QStringLiteral("relay.db"));
}

QString RelayFixture::outboxPath() const {
    return m_folder.filePath(QStringLiteral("relay-outbox.txt"));
}

QUrl RelayFixture::url() const {
    return QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(m_port));
}

bool RelayFixture::isRunning() const {
    return m_process && m_process->state() == QProcess::Running;
}

bool RelayFixture::start() {
    if (isRunning())
        return true;
    m_process = std::make_unique<QProcess>();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("MERE_RELAY_PORT"), QString::number(m_port)); // 0 the first time
    environment.insert(QStringLiteral("MERE_RELAY_DB_PATH"), databasePath());
    environment.insert(QStringLiteral("MERE_RELAY_ENV_PATH"), m_folder.filePath(QStringLiteral("relay.env")));
    environment.insert(QStringLiteral("MERE_RELAY_LOCAL_AUTH"), m_options.localAuth ? "1" : "0");
    environment.insert(QStringLiteral("PYTHONDONTWRITEBYTECODE"), QStringLiteral("1"));
    environment.insert(QStringLiteral("PYTHONUNBUFFERED"), QStringLiteral("1"));
    environment.insert(m_options.extra);
    m_process->setProcessEnvironment(environment);
    m_process->setProcessChannelMode(QProcess::SeparateChannels);
    m_process->setStandardErrorFile(QProcess::nullDevice());
    // A test that crashes must not leave its relay behind.
    m_process->setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
    m_process->start(m_options.interpreter.isEmpty() ? python() : m_options.interpreter, {serverScript()});
    if (!m_process->waitForStarted(5000))
        return false;

    // The relay prints its address once it listens.
    static const QRegularExpression listening(QStringLiteral("listening on http://[^:]+:(\\d+)/"));
    QByteArray output;
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < 15000 && m_process->state() == QProcess::Running) {
        m_process->waitForReadyRead(200);
        output += m_process->readAllStandardOutput();
        const auto match = listening.match(QString::fromUtf8(output));
        if (match.hasMatch()) {
            m_port = quint16(match.captured(1).toUInt());
            return true;
        }
    }
    return false;
}

void RelayFixture::stop() {
    if (!m_process)
        return;
    if (m_process->state() != QProcess::NotRunning) {
        m_process->terminate();
        if (!m_process->waitForFinished(5000)) {
            m_process->kill();
            m_process->waitForFinished(5000);
        }
    }
    m_process.reset();
}

std::optional<QString> RelayFixture::latestCode(const QString& email) const {
    QFile outbox(outboxPath());
    if (!outbox.open(QIODevice::ReadOnly))
        return std::nullopt;
    std::optional<QString> code;
    const QRegularExpression line(QStringLiteral("to=(\\S+) code=(\\d{6})"));
    for (const QByteArray& raw : outbox.readAll().split('\n')) {
        const auto match = line.match(QString::fromUtf8(raw));
        if (match.hasMatch() && match.captured(1) == email)
            code = match.captured(2);
    }
    return code;
}

std::optional<RelayFixture::SecondFactorSetup> RelayFixture::enableSecondFactor(const QString& email) const {
    QProcess admin;
    admin.start(python(), {serverScript(), QStringLiteral("totp-enable"), email, QStringLiteral("--db"),
                           databasePath()});
    if (!admin.waitForFinished(15000) || admin.exitCode() != 0)
        return std::nullopt;
    const QString text = QString::fromUtf8(admin.readAllStandardOutput());
    const auto secret = QRegularExpression(QStringLiteral("Secret[^:]*: ([A-Z2-7]+)")).match(text);
    if (!secret.hasMatch())
        return std::nullopt;
    SecondFactorSetup setup{secret.captured(1), {}};
    const QStringList lines = text.split(QLatin1Char('\n'));
    const qsizetype start = lines.indexOf(QRegularExpression(QStringLiteral("^Recovery codes.*")));
    for (qsizetype i = start + 1; start >= 0 && i < lines.size(); ++i)
        if (!lines[i].trimmed().isEmpty())
            setup.recoveryCodes << lines[i].trimmed();
    return setup;
}

namespace {

QByteArray base32Decode(const QString& text) {
    static const QByteArray alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
    QByteArray bytes;
    quint32 buffer = 0;
    int bits = 0;
    for (const QChar c : text.toUpper()) {
        const qsizetype value = alphabet.indexOf(char(c.toLatin1()));
        if (value < 0)
            continue;
        buffer = (buffer << 5) | quint32(value);
        bits += 5;
        if (bits >= 8) {
            bytes.append(char((buffer >> (bits - 8)) & 0xff));
            bits -= 8;
        }
    }
    return bytes;
}

} // namespace

QString totpCode(const QString& base32Secret, qint64 unixSeconds) {
    QByteArray counter(8, '\0');
    qToBigEndian(quint64(unixSeconds / 30), counter.data());
    const QByteArray mac =
        QMessageAuthenticationCode::hash(counter, base32Decode(base32Secret), QCryptographicHash::Sha1);
    const int offset = mac.at(mac.size() - 1) & 0x0f;
    const quint32 binary = (quint32(uchar(mac[offset]) & 0x7f) << 24) |
                           (quint32(uchar(mac[offset + 1])) << 16) | (quint32(uchar(mac[offset + 2])) << 8) |
                           quint32(uchar(mac[offset + 3]));
    return QStringLiteral("%1").arg(binary % 1000000, 6, 10, QLatin1Char('0'));
}

quint16 RelayFixture::freeLoopbackPort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}
