// Links in the view: with Control held, the link under the pointer is underlined and a
// click opens it through the delegate (by default the desktop's handler). Explicit links
// (OSC 8) pass their parameters on; implicit ones are the text the link expression found,
// paths resolved against the directory the program reported.

#include <QCursor>
#include <QDir>
#include <QFileInfo>
#include <QUrl>

#include "Termkit/view/TerminalView.h"
#include "Termkit/view/render/FontSet.h"

namespace termkit {

namespace {

// OSC 8 parameters are "key=value" items separated by colons.
std::map<std::string, std::string> linkParameters(const std::string& params) {
    std::map<std::string, std::string> out;
    size_t start = 0;
    while (start <= params.size()) {
        const size_t end = std::min(params.find(':', start), params.size());
        const std::string item = params.substr(start, end - start);
        if (const size_t eq = item.find('='); eq != std::string::npos && eq > 0)
            out[item.substr(0, eq)] = item.substr(eq + 1);
        start = end + 1;
    }
    return out;
}

// How thick the hover underline is, in logical pixels.
constexpr qreal kLinkUnderline = 1.5;

} // namespace

std::optional<std::string> TerminalView::defaultLinkURL(const std::string& text,
                                                        const std::string& directory) {
    const QString link = QString::fromStdString(text);
    const QUrl url(link);
    if (url.isValid() && !url.scheme().isEmpty() && !link.startsWith('/'))
        return text;
    // A path: home for "~/", else relative to the program's directory; only existing files.
    QString path = link.trimmed();
    if (path.startsWith(QStringLiteral("~/")))
        path = QDir::homePath() + path.mid(1);
    else if (!QDir::isAbsolutePath(path) && !directory.empty())
        path = QDir(QString::fromStdString(directory)).filePath(path);
    if (!QDir::isAbsolutePath(path) || !QFileInfo::exists(path))
        return std::nullopt;
    return QUrl::fromLocalFile(QDir::cleanPath(path)).toString().toStdString();
}

std::optional<LinkMatch> TerminalView::linkAt(QPointF position) const {
    if (m_settings.linkReporting == LinkReporting::none)
        return std::nullopt;
    const LinkLookupMode mode = m_settings.linkReporting == LinkReporting::explicitOnly
                                    ? LinkLookupMode::explicitOnly
                                    : LinkLookupMode::explicitAndImplicit;
    return TerminalLinks::link(*m_terminal, LinkLookupLocation::buffer(bufferCell(position)), mode);
}

bool TerminalView::openLinkAt(QPointF position) {
    const std::optional<LinkMatch> match = linkAt(position);
    if (!match)
        return false;
    std::optional<std::string> target = match->text;
    if (!match->isExplicit)
        target = defaultLinkURL(match->text, reportedDirectory(*m_terminal).value_or(std::string()));
    if (!target)
        return false;
    const std::map<std::string, std::string> params = linkParameters(match->params);
    if (m_delegate)
        m_delegate->requestOpenLink(*this, *target, params);
    else
        TerminalViewDelegate::openDefaultLink(*target);
    return true;
}

void TerminalView::setLinkModifierHeld(bool held) {
    if (held == m_linkModifierHeld)
        return;
    m_linkModifierHeld = held;
    if (m_settings.linkHighlightMode == LinkHighlightMode::alwaysWithModifier)
        polish();
}

void TerminalView::hoverLink(QPointF position, Qt::KeyboardModifiers modifiers) {
    setLinkModifierHeld(modifiers.testFlag(Qt::ControlModifier));
    const bool wanted = m_settings.linkHighlightMode == LinkHighlightMode::hover ||
                        m_settings.linkHighlightMode == LinkHighlightMode::always ||
                        modifiers.testFlag(Qt::ControlModifier);
    std::optional<LinkMatch> match = wanted ? linkAt(position) : std::nullopt;
    const bool changed = match.has_value() != m_hoveredLink.has_value() ||
                         (match && m_hoveredLink &&
                          (match->row != m_hoveredLink->row || match->range != m_hoveredLink->range));
    m_hoveredLink = std::move(match);
    setCursor(QCursor(m_hoveredLink ? Qt::PointingHandCursor : Qt::IBeamCursor));
    if (changed)
        polish();
}

std::vector<LinkMatch> TerminalView::underlinedLinks() const {
    const LinkHighlightMode mode = m_settings.linkHighlightMode;
    const bool all = mode == LinkHighlightMode::always ||
                     (mode == LinkHighlightMode::alwaysWithModifier && m_linkModifierHeld);
    if (!all || m_settings.linkReporting == LinkReporting::none) {
        if (m_hoveredLink && mode != LinkHighlightMode::never)
            return {*m_hoveredLink};
        return {};
    }
    const LinkLookupMode lookup = m_settings.linkReporting == LinkReporting::explicitOnly
                                      ? LinkLookupMode::explicitOnly
                                      : LinkLookupMode::explicitAndImplicit;
    const LineIndex top = m_terminal->buffer().yDisp();
    return TerminalLinks::links(*m_terminal, top, top + (m_terminal->rows() - 1), lookup);
}

void TerminalView::addLinkUnderline(double cellWidth, double cellHeight, int top) {
    const std::vector<LinkMatch> underlined = underlinedLinks();
    const QColor color = QColor::fromRgba(m_colors.foreground);
    for (const LinkMatch& link : underlined) {
        for (const RowRange& span : link.rowRanges) {
            const int screenRow = span.row.value - top;
            if (screenRow < 0 || screenRow >= m_terminal->rows())
                continue;
            const QRectF rect(span.range.first * cellWidth, (screenRow + 1) * cellHeight - kLinkUnderline,
                              (span.range.second - span.range.first) * cellWidth, kLinkUnderline);
            m_highlightRects.emplace_back(rect, color);
        }
    }
}

} // namespace termkit
