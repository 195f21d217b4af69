#include "Termkit/view/TerminalViewDelegate.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QGuiApplication>
#include <QUrl>

namespace termkit {

void TerminalViewDelegate::openDefaultLink(const std::string& link) {
    QDesktopServices::openUrl(QUrl(QString::fromStdString(link)));
}

void TerminalViewDelegate::requestOpenLink(TerminalView&, const std::string& link,
                                           const std::map<std::string, std::string>&) {
    openDefaultLink(link);
}

void TerminalViewDelegate::bell(TerminalView&) {
    // The platform's beep (the X server's bell); it needs no widget, only the platform.
    QApplication::beep();
}

void TerminalViewDelegate::clipboardCopy(TerminalView&, const std::vector<uint8_t>& content) {
    if (QClipboard* clipboard = QGuiApplication::clipboard())
        clipboard->setText(QString::fromUtf8(reinterpret_cast<const char*>(content.data()),
                                             static_cast<qsizetype>(content.size())));
}

} // namespace termkit
