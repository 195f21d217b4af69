#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <optional>
#include <random>
#include <string>

namespace improve::testing {

// One generated planning input: a guide file (absent or not), a section and a body.
struct GuideCase {
    std::optional<QString> existing;
    QString section;
    QString body;
    // The body copies a run of the file's lines, re-indented and perhaps re-spelled, so
    // the rule must be found already present.
    bool bodyFromFile = false;
    // The section names one of the file's headings, perhaps re-spelled, so the rule must
    // go into that section and no new heading may be added.
    bool sectionFromFile = false;
};

// Readable form of a case for failure messages, with every unusual character escaped.
std::string describe(const GuideCase& c);

// Makes guide files of the kinds people keep: headings of mixed levels (some indented,
// some look-alikes that are not headings), blank runs made of assorted Zs spaces and tabs,
// LF or CR LF or mixed line ends, missing or extra final newlines, and words written with
// combining characters in either precomposed or decomposed form.
class GuideCaseGenerator {
public:
    explicit GuideCaseGenerator(std::uint32_t seed) : m_random(seed) {}

    // With distinctBody, the body's lines never equal a line of the file, so the rule's
    // first occurrence after planning is the one that was inserted. Without it, the body
    // is sometimes copied from the file, re-indented, to exercise "already present".
    GuideCase next(bool distinctBody);

private:
    int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(m_random); }
    bool chance(int percent) { return below(100) < percent; }

    QString blanks(int maxCount);
    QString word();
    QString title();
    QString heading();
    QString textLine();
    QString blankLine();
    QString fileBody();
    QString lineEnding(int style);
    QString fileText(const QStringList& lines);
    QString section(const QString& file, bool& fromFile);
    QString distinctRuleBody();
    QString copiedBody(const QStringList& lines, const QList<int>& textLines);
    QString wrapInLineBreaks(const QString& body);

    std::mt19937 m_random;
    int m_ruleCounter = 0;
};

} // namespace improve::testing
