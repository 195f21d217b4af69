#include "generators/GuideCases.h"

#include "ImproveApply/CharacterClasses.h"
#include "ImproveApply/GuideMerge.h"

#include <QStringList>

namespace improve::testing {
namespace {

// Each word in two canonically equivalent spellings: precomposed and decomposed.
const char16_t* const kWords[][2] = {
    {u"build", u"build"},
    {u"tests", u"tests"},
    {u"caf\u00E9", u"cafe\u0301"},
    {u"na\u00EFve", u"nai\u0308ve"},
    {u"\u00C5ngstr\u00F6m", u"A\u030Angstro\u0308m"},
    {u"r\u00E9sum\u00E9", u"re\u0301sume\u0301"},
    {u"\uD55C\uAE00", u"\u1112\u1161\u11AB\u1100\u1173\u11AF"},
    {u"\u1EC7", u"e\u0323\u0302"},
    {u"\U0001F600ok", u"\U0001F600ok"},
};

const char16_t* const kTitles[] = {u"Rules", u"Style", u"Build", u"Tests", u"Notes", u"Conventions"};

// Horizontal white space as people's editors leave it, every kind of Zs among it.
const char16_t* const kBlanks[] = {u" ",      u" ",      u" ",      u"\t",     u"\u00A0", u"\u2003",
                                   u"\u3000", u"\u202F", u"\u1680", u"\u205F", u"\u2000"};

// Lines that look like headings and are not, or are headings only after trimming.
const char16_t* const kLookAlikes[] = {u"##x",          u"#######  deep",        u"#\ttab",
                                       u"```",          u"# comment in a fence", u"\u00A0## Rules",
                                       u"####### Rules"};

// The same text in another canonically equivalent spelling, or unchanged.
QString respelled(const QString& s, int choice) {
    if (choice == 0)
        return s.normalized(QString::NormalizationForm_D);
    if (choice == 1)
        return s.normalized(QString::NormalizationForm_C);
    return s;
}

QString escaped(const QString& s) {
    QString out;
    for (char32_t c : s.toUcs4()) {
        if (c >= 0x20 && c < 0x7F && c != '\\')
            out += QChar(char16_t(c));
        else
            out += QStringLiteral("\\u{%1}").arg(uint(c), 0, 16);
    }
    return out;
}

} // namespace

std::string describe(const GuideCase& c) {
    const QString existing =
        c.existing ? QChar(u'"') + escaped(*c.existing) + QChar(u'"') : QStringLiteral("absent");
    return QStringLiteral("existing=%1 section=\"%2\" body=\"%3\"")
        .arg(existing, escaped(c.section), escaped(c.body))
        .toStdString();
}

QString GuideCaseGenerator::blanks(int maxCount) {
    QString out;
    for (int i = below(maxCount + 1); i > 0; --i)
        out += QString::fromUtf16(kBlanks[below(std::size(kBlanks))]);
    return out;
}

QString GuideCaseGenerator::word() {
    const auto& spellings = kWords[below(std::size(kWords))];
    return QString::fromUtf16(spellings[below(2)]);
}

QString GuideCaseGenerator::title() {
    if (chance(15))
        return word();
    return QString::fromUtf16(kTitles[below(std::size(kTitles))]);
}

QString GuideCaseGenerator::heading() {
    const int level = 1 + below(4);
    return QString(level, QChar(u'#')) + QChar(u' ') + title();
}

QString GuideCaseGenerator::textLine() {
    if (chance(8))
        return QString::fromUtf16(kLookAlikes[below(std::size(kLookAlikes))]);
    const QString lead = chance(30) ? blanks(4) : QString();
    const QString trail = chance(20) ? blanks(2) : QString();
    return lead + QStringLiteral("- item %1 %2 %3").arg(below(12)).arg(word(), word()) + trail;
}

QString GuideCaseGenerator::blankLine() {
    return chance(60) ? QString() : blanks(3);
}

QString GuideCaseGenerator::fileBody() {
    QStringList lines;
    if (chance(30))
        lines << textLine();
    for (int s = below(8); s > 0; --s) {
        lines << (chance(20) ? blanks(2) : QString()) + heading() + (chance(15) ? blanks(2) : QString());
        for (int i = below(5); i > 0; --i)
            lines << (chance(25) ? blankLine() : textLine());
        for (int i = below(3); i > 0; --i)
            lines << blankLine();
    }
    return fileText(lines);
}

QString GuideCaseGenerator::lineEnding(int style) {
    if (style == 0)
        return QStringLiteral("\n");
    if (style == 1)
        return QStringLiteral("\r\n");
    return chance(50) ? QStringLiteral("\n") : QStringLiteral("\r\n");
}

QString GuideCaseGenerator::fileText(const QStringList& lines) {
    const int style = chance(70) ? 0 : (chance(65) ? 1 : 2);
    QString text;
    for (const QString& line : lines)
        text += line + lineEnding(style);
    const int ending = below(100);
    if (ending < 15 && text.endsWith(QChar(u'\n')))
        text.chop(text.endsWith(QStringLiteral("\r\n")) ? 2 : 1); // no final newline
    else if (ending >= 75)
        for (int i = 1 + below(4); i > 0; --i)
            text += blankLine() + lineEnding(style);
    return text;
}

QString GuideCaseGenerator::section(const QString& file, bool& fromFile) {
    const int kind = below(100);
    QString heading;
    fromFile = false;
    if (kind < 40) {
        // One of the file's own headings, in whichever spelling the file has it.
        QStringList headings;
        for (const QString& line : GuideMerge::splitLines(file)) {
            const QStringView trimmed = text::trimHorizontal(line);
            if (GuideMerge::headingLevel(trimmed) > 0)
                headings << trimmed.toString();
        }
        if (headings.isEmpty()) {
            heading = this->heading();
        } else {
            heading = headings[below(headings.size())];
            // A CR LF file's heading keeps its carriage return, which the section string loses.
            fromFile = !heading.contains(QChar(u'\r'));
            heading = respelled(heading, below(3));
        }
    } else if (kind < 70) {
        heading = this->heading();
    } else if (kind < 85) {
        heading = title(); // a plain line, no "#"
    }
    const QString around = chance(30) ? QStringLiteral(" \n\u3000") : QString();
    return around + heading + (chance(30) ? QStringLiteral("\t\r\n") : QString());
}

QString GuideCaseGenerator::distinctRuleBody() {
    // Every line says "rule" and carries a counter, so no file line and no earlier rule
    // line can equal it.
    QStringList lines;
    if (chance(5))
        lines << blanks(2); // a first line of blanks only survives the trimming of line breaks
    const int count = 1 + below(3);
    for (int i = 0; i < count; ++i) {
        if (i > 0 && chance(10))
            lines << blankLine();
        const QString lead = chance(20) ? blanks(3) : QString();
        if (chance(8))
            lines << lead + QStringLiteral("#### rule note %1").arg(++m_ruleCounter);
        else
            lines << lead + QStringLiteral("- rule %1 %2").arg(++m_ruleCounter).arg(word()) +
                         (chance(10) ? blanks(2) : QString());
    }
    return wrapInLineBreaks(lines.join(chance(15) ? QStringLiteral("\r\n") : QStringLiteral("\n")));
}

QString GuideCaseGenerator::copiedBody(const QStringList& lines, const QList<int>& textLines) {
    // The run starts on a line of text, so the body is never blank.
    const int start = textLines[below(textLines.size())];
    const int count = 1 + below(std::min<int>(3, lines.size() - start));
    QStringList copied;
    for (int i = start; i < start + count; ++i) {
        // At least one blank on each side, so that trimming the body's line breaks cannot
        // take a carriage return off a copied CR LF line.
        const QString line = respelled(text::trimHorizontal(lines[i]).toString(), below(3));
        copied << QChar(u' ') + blanks(2) + line + QChar(u' ') + blanks(1);
    }
    return wrapInLineBreaks(copied.join(QChar(u'\n')));
}

QString GuideCaseGenerator::wrapInLineBreaks(const QString& body) {
    const char16_t* const breaks[] = {u"", u"\n", u"\n\n", u"\r\n", u"\u2028"};
    return QString::fromUtf16(breaks[below(std::size(breaks))]) + body +
           QString::fromUtf16(breaks[below(std::size(breaks))]);
}

GuideCase GuideCaseGenerator::next(bool distinctBody) {
    GuideCase c;
    const int kind = below(100);
    if (kind < 4)
        c.existing = std::nullopt;
    else if (kind < 8)
        c.existing = QString();
    else if (kind < 12)
        c.existing = fileText({blankLine()});
    else
        c.existing = fileBody();
    const QString file = c.existing.value_or(QString());
    c.section = section(file, c.sectionFromFile);
    const QStringList lines = GuideMerge::splitLines(file);
    QList<int> textLines;
    for (int i = 0; i < lines.size(); ++i) {
        if (!text::trimWhiteSpace(lines[i]).isEmpty())
            textLines << i;
    }
    c.bodyFromFile = !distinctBody && !textLines.isEmpty() && chance(35);
    c.body = c.bodyFromFile ? copiedBody(lines, textLines) : distinctRuleBody();
    return c;
}

} // namespace improve::testing
