// The view's drawing: frames built on the main thread in updatePolish, handed to the
// scene graph in updatePaintNode (render thread, main thread waiting), and their fate
// followed through the frame coordinator.

#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QQuickWindow>
#include <QSGImageNode>
#include <QSGRectangleNode>
#include <QSGRendererInterface>

#include <algorithm>
#include <cmath>
#include <map>

#include "Termkit/view/TerminalView.h"
#include "Termkit/view/render/GpuRowsNode.h"

namespace termkit {

namespace {

CaretShape shapeOf(CursorStyle style) {
    switch (style) {
    case CursorStyle::blinkUnderline:
    case CursorStyle::steadyUnderline:
        return CaretShape::underline;
    case CursorStyle::blinkBar:
    case CursorStyle::steadyBar:
        return CaretShape::bar;
    default:
        return CaretShape::block;
    }
}

// What the software path paints behind the rows' own backgrounds and glyphs.
constexpr uint32_t kTransparentRowBackground = 0x00000000u;

QColor qcolor(uint32_t argb) {
    return QColor::fromRgba(argb);
}

} // namespace

/// The view's scene-graph subtree: the background, pictures under the text, the rows
/// (geometry on the GPU path, one image in software), pictures over the text, the caret,
/// the bell's flash and the progress bar, in that order.
class ViewRootNode : public QSGNode {
public:
    ViewRootNode(QQuickWindow* window, bool software) : software(software) {
        background = window->createRectangleNode();
        appendChildNode(background);
        imagesBelow = new ImageLayerNode(window);
        appendChildNode(imagesBelow);
        if (software) {
            image = makeImageNode(window);
            appendChildNode(image);
        } else {
            gpuRows = new GpuRowsNode;
            appendChildNode(gpuRows);
        }
        imagesAbove = new ImageLayerNode(window);
        appendChildNode(imagesAbove);
        // All highlight nodes are made here, with the tree: the software renderer places a
        // node added later to this subtree without the item's transform.
        highlights = new QSGNode;
        appendChildNode(highlights);
        for (size_t i = 0; i < TerminalView::kHighlightNodes; ++i) {
            QSGRectangleNode* node = window->createRectangleNode();
            node->setRect(QRectF());
            highlights->appendChildNode(node);
            highlightNodes.push_back(node);
        }
        caret = makeImageNode(window);
        appendChildNode(caret);
        bell = window->createRectangleNode();
        appendChildNode(bell);
        progress = window->createRectangleNode();
        appendChildNode(progress);
    }

    ~ViewRootNode() override {
        for (auto& [node, texture] : textures)
            delete texture;
    }

    // An image node never goes without a texture: the software renderer cannot draw one.
    QSGImageNode* makeImageNode(QQuickWindow* window) {
        QSGImageNode* node = window->createImageNode();
        node->setFiltering(QSGTexture::Nearest);
        QImage blank(1, 1, QImage::Format_ARGB32_Premultiplied);
        blank.fill(Qt::transparent);
        setTexture(node, window->createTextureFromImage(blank));
        node->setRect(QRectF());
        return node;
    }

    // The textures belong to this node rather than to the image nodes, so that replacing
    // one is the same on every scene-graph backend.
    void setTexture(QSGImageNode* node, QSGTexture* texture) {
        QSGTexture*& slot = textures[node];
        QSGTexture* old = slot;
        node->setTexture(texture);
        slot = texture;
        delete old;
    }

    std::map<QSGImageNode*, QSGTexture*> textures;

    const bool software;
    QSGRectangleNode* background = nullptr;
    GpuRowsNode* gpuRows = nullptr;
    QSGImageNode* image = nullptr;
    ImageLayerNode* imagesBelow = nullptr;
    ImageLayerNode* imagesAbove = nullptr;
    // Selection and search matches: translucent rectangles over the text, made afresh for
    // each frame (a handful on any screen).
    QSGNode* highlights = nullptr;
    std::vector<QSGRectangleNode*> highlightNodes;
    QSGImageNode* caret = nullptr;
    QSGRectangleNode* bell = nullptr;
    QSGRectangleNode* progress = nullptr;
};

CacheSignature TerminalView::signature() const {
    const CellMetrics& cell = m_fonts->metrics();
    CacheSignature s;
    s.scale = m_devicePixelRatio;
    s.cellWidth = cell.width;
    s.cellHeight = cell.height;
    s.viewWidth = static_cast<int>(width() * m_devicePixelRatio);
    s.viewHeight = static_cast<int>(height() * m_devicePixelRatio);
    s.yDisp = m_terminal->buffer().yDisp().value;
    s.rows = m_terminal->rows();
    s.cols = m_terminal->cols();
    s.fontName = m_fontFamily.toStdString();
    s.fontSize = m_fontSize;
    s.isAltBuffer = m_terminal->isAlternateBufferActive();
    s.bidiHostPolicy = static_cast<int>(m_settings.bidiHostPolicy);
    s.colorStamp = colorStamp(*m_terminal, m_colors);
    return s;
}

void TerminalView::updatePolish() {
    // An item made with its parent gets no scene change of its own: it may meet its window here.
    if (window() != m_window)
        attachToWindow(window());
    if (!m_window || !m_frames)
        return;
    QSGRendererInterface* renderer = m_window->rendererInterface();
    const bool softwareSceneGraph = renderer && renderer->graphicsApi() == QSGRendererInterface::Software;
    if (softwareSceneGraph && m_health.status().state != RendererStatus::State::disabled) {
        m_health.disable();
        emit rendererStatusChanged();
    }
    const bool software =
        softwareSceneGraph || m_health.status().state == RendererStatus::State::fellBackToCoreGraphics;
    if (software != m_useSoftware) {
        m_useSoftware = software;
        m_pendingAllRows = true;
        m_replaceRenderer = true;
    }
    setUsesGpu(!software);
    buildFrame();
    buildCaret();
    if (m_searchHitsStale)
        refreshSearchHits();
    buildHighlightRects();
    buildImageDraws();
    // The redraw asked for is built: output that arrives from now on starts a new round.
    m_pacing.displayed();
    update();
}

void TerminalView::setUsesGpu(bool gpu) {
    if (gpu == m_usesGpu)
        return;
    m_usesGpu = gpu;
    emit rendererStatusChanged();
}

void TerminalView::buildFrame() {
    TerminalRowSource source(*m_terminal, m_colors, bidiForDisplay());
    const RowBuildContext context{m_fonts->metrics(), viewBackground(*m_terminal, m_colors),
                                  m_textBlink.shown()};
    FrameBuilder::Result result = m_frames->build(source, signature(), context);
    m_bytesInFrame = m_bytesFed;
    if (m_pendingAllRows)
        result.allRows = true;
    if (result.allRows) {
        m_pendingAllRows = true;
        m_pendingRows.clear();
    } else {
        m_pendingRows.insert(result.rebuiltRows.begin(), result.rebuiltRows.end());
    }
    if (m_useSoftware) {
        const QSize deviceSize(static_cast<int>(width() * m_devicePixelRatio),
                               static_cast<int>(height() * m_devicePixelRatio));
        // Cells with the default background are left transparent, as the GPU path leaves them
        // unpainted: the view's background node shows through, and so do pictures under the
        // text, which sit between the two. Only backgrounds of the cells' own cover them.
        if (m_software.paint(*m_frames, result, *m_glyphs, deviceSize, m_fonts->metrics().height,
                             kTransparentRowBackground))
            m_softwareImageDirty = true;
    }
    if (m_settings.notifyUpdateChanges && m_delegate && !result.rebuiltRows.empty())
        m_delegate->rangeChanged(*this, result.rebuiltRows.front(), result.rebuiltRows.back());
    // Rows that a full atlas could not finish are built again in the next frame.
    if (result.incompleteRows > 0)
        QMetaObject::invokeMethod(
            this, [this] { polish(); }, Qt::QueuedConnection);
    if (!result.rebuiltRows.empty())
        updateTimers();
}

void TerminalView::buildCaret() {
    const auto [cursorCol, cursorRow] = m_terminal->getCursorLocation();
    const Buffer& buffer = m_terminal->buffer();
    // The caret sits on the program's screen: scrolled back, it is off the display, and its row
    // on the display is its screen row moved down by how far the display is scrolled back.
    const bool scrolledBack = buffer.yDisp() != buffer.yBase();
    const int caretRow = cursorRow.value + (buffer.yBase() - buffer.yDisp());
    const CellMetrics& cell = m_fonts->metrics();
    const bool focused = hasActiveFocus();
    const bool visible = !m_terminal->cursorHidden() && !scrolledBack && (m_caretBlinkShown || !focused);
    QString cluster;
    int col = cursorCol.value;
    const RenderCell under = cellAt(*m_terminal, col, caretRow, m_colors, cluster);
    CaretLook look;
    look.shape = shapeOf(m_terminal->cursorStyle());
    look.focused = focused;
    look.caretColor = m_settings.caretColor ? argb(*m_settings.caretColor) : m_colors.foreground;
    look.caretTextColor = m_settings.caretTextColor ? argb(*m_settings.caretTextColor) : m_colors.background;
    look.cells = under.width == 2 ? 2 : 1;
    // The cell under the caret is drawn where the row's layout put it.
    col = visualColumn(buffer.yDisp() + caretRow, col);
    const QRectF rect(col * cell.width / m_devicePixelRatio, caretRow * cell.height / m_devicePixelRatio,
                      look.cells * cell.width / m_devicePixelRatio, cell.height / m_devicePixelRatio);
    if (visible != m_caretVisible || rect != m_caretRect)
        m_caretDirty = true;
    m_caretVisible = visible;
    m_caretRect = rect;
    if (m_caretDirty && visible)
        m_caretImage = CaretPainter::paint(look, under, cluster, *m_glyphs);
}

QSGNode* TerminalView::updatePaintNode(QSGNode* oldNode, UpdatePaintNodeData*) {
    auto* root = static_cast<ViewRootNode*>(oldNode);
    QQuickWindow* w = window();
    if (w == nullptr || !m_frames)
        return root;
    const auto begun = m_coordinator->begin();
    const std::optional<FrameCoordinator::Token> token =
        std::holds_alternative<FrameCoordinator::Token>(begun)
            ? std::optional(std::get<FrameCoordinator::Token>(begun))
            : std::nullopt;
    if (token && (m_simulatedRefusal || !w->isSceneGraphInitialized())) {
        m_coordinator->refuse(*token, m_simulatedRefusal.value_or(FrameRefusalReason::missingDrawable));
        return root;
    }
    if (m_deviceMaxTextureSize == 0)
        readDeviceLimits(w);
    if (root == nullptr || m_replaceRenderer || root->software != m_useSoftware) {
        delete root;
        root = new ViewRootNode(w, m_useSoftware);
        m_replaceRenderer = false;
        m_pendingAllRows = true;
        m_softwareImageDirty = true;
        m_caretDirty = true;
    }
    root->background->setRect(boundingRect());
    root->background->setColor(qcolor(viewBackground(*m_terminal, m_colors)));
    updateRowNodes(*root, w);
    root->imagesBelow->update(m_imagesBelow, w);
    root->imagesAbove->update(m_imagesAbove, w);
    updateCaretNode(*root, w);
    updateHighlightNodes(*root);
    updateOverlayNodes(*root);
    if (token) {
        QMutexLocker guard(&m_tokenLock);
        m_coordinator->didSubmit(*token);
        m_submitted = token;
        m_bytesOnScreen = m_bytesInFrame;
    }
    return root;
}

void TerminalView::updateRowNodes(ViewRootNode& root, QQuickWindow* window) {
    const float scale = static_cast<float>(1.0 / m_devicePixelRatio);
    if (root.software) {
        if (m_softwareImageDirty && !m_software.image().isNull()) {
            root.setTexture(root.image, window->createTextureFromImage(m_software.image()));
            root.image->setSourceRect(QRectF(QPointF(0, 0), m_software.image().size()));
            root.image->setRect(QRectF(QPointF(0, 0), QSizeF(m_software.image().size()) * scale));
            m_softwareImageDirty = false;
        }
    } else {
        FrameBuilder::Result result;
        result.allRows = m_pendingAllRows;
        result.rebuiltRows.assign(m_pendingRows.begin(), m_pendingRows.end());
        root.gpuRows->update(*m_frames, result, *m_glyphs, window, m_settings.bufferingMode, scale);
    }
    m_pendingRows.clear();
    m_pendingAllRows = false;
}

void TerminalView::updateCaretNode(ViewRootNode& root, QQuickWindow* window) {
    if (m_caretVisible) {
        if (m_caretDirty && !m_caretImage.isNull()) {
            root.setTexture(root.caret, window->createTextureFromImage(m_caretImage));
            root.caret->setSourceRect(QRectF(QPointF(0, 0), m_caretImage.size()));
        }
        root.caret->setRect(m_caretRect);
    } else {
        root.caret->setRect(QRectF());
    }
    m_caretDirty = false;
}

void TerminalView::updateHighlightNodes(ViewRootNode& root) {
    // Unused nodes keep an empty rectangle; more rectangles than nodes are not drawn.
    for (size_t i = 0; i < root.highlightNodes.size(); ++i) {
        QSGRectangleNode* node = root.highlightNodes[i];
        if (i < m_highlightRects.size()) {
            node->setRect(m_highlightRects[i].first);
            node->setColor(m_highlightRects[i].second);
        } else if (!node->rect().isEmpty()) {
            node->setRect(QRectF());
        }
    }
}

void TerminalView::updateOverlayNodes(ViewRootNode& root) {
    const QRectF bounds = boundingRect();
    QColor flash = qcolor(m_colors.foreground);
    flash.setAlphaF(kVisualBellOpacity);
    root.bell->setColor(flash);
    root.bell->setRect(m_bellFlash ? bounds : QRectF());
    QRectF bar;
    if (m_progress.visible()) {
        const double width = bounds.width();
        if (auto fraction = m_progress.fraction()) {
            bar = QRectF(0, 0, width * *fraction, kProgressBarHeight);
        } else {
            // An indeterminate bar: a segment sweeping across, one sweep per period.
            const double period = static_cast<double>(m_progress.indeterminateDuration().count());
            const double t = std::fmod(static_cast<double>(m_clock.elapsed()), period) / period;
            const double segment = width * m_progress.barWidthRatio();
            bar = QRectF(-segment + t * (width + segment), 0, segment, kProgressBarHeight);
        }
        const auto state = m_progress.state();
        root.progress->setColor(state == ProgressReport::State::error   ? QColor(0xCC, 0, 0)
                                : state == ProgressReport::State::pause ? QColor(0x88, 0x88, 0x88)
                                                                        : qcolor(m_colors.foreground));
    }
    root.progress->setRect(bar);
}

void TerminalView::framePresentedOnRenderThread() {
    std::optional<FrameCoordinator::Token> token;
    {
        QMutexLocker guard(&m_tokenLock);
        token = m_submitted;
        m_submitted.reset();
    }
    if (!token)
        return;
    m_coordinator->complete(*token, TrackedCommandBufferStatus::completed);
    QMetaObject::invokeMethod(this, &TerminalView::framePresentedOnMainThread, Qt::QueuedConnection);
}

void TerminalView::framePresentedOnMainThread() {
    const RendererStatus::State before = m_health.status().state;
    m_health.didPresentAt(now());
    m_bytesPresented = m_bytesOnScreen;
    if (m_health.status().state != before)
        emit rendererStatusChanged();
    emit framePresented();
}

void TerminalView::requestRecovery(const RendererRecoveryReport&) {
    if (m_health.beginReplacementAfterFailure(now()))
        m_replaceRenderer = true;
    emit rendererStatusChanged();
    polish();
}

void TerminalView::sceneGraphFailed(const QString&) {
    std::optional<FrameCoordinator::Token> token;
    {
        QMutexLocker guard(&m_tokenLock);
        token = m_submitted;
        m_submitted.reset();
    }
    if (token)
        m_coordinator->complete(*token, TrackedCommandBufferStatus::error, std::string("scene graph error"));
}

void TerminalView::readDeviceLimits(QQuickWindow* window) {
    // Only OpenGL answers through public API; other devices keep the default cap.
    QSGRendererInterface* renderer = window->rendererInterface();
    if (renderer == nullptr || renderer->graphicsApi() != QSGRendererInterface::OpenGL)
        return;
    QOpenGLContext* context = QOpenGLContext::currentContext();
    if (context == nullptr)
        return;
    GLint size = 0;
    context->functions()->glGetIntegerv(GL_MAX_TEXTURE_SIZE, &size);
    if (size <= 0)
        return;
    m_deviceMaxTextureSize = size;
    // The main thread waits while this runs: the atlases may take their new limit now.
    m_glyphs->setMaxAtlasSize(GlyphAtlas::recommendedMaxSize(size));
}

void TerminalView::deviceLost() {
    // Lost with the device are the textures and nodes: a new renderer is made for the next
    // frame, as after any failure (the recovery policy decides whether the GPU gets it).
    QMutexLocker guard(&m_tokenLock);
    m_submitted.reset();
    guard.unlock();
    if (m_health.beginReplacementAfterFailure(now()))
        m_replaceRenderer = true;
    emit rendererStatusChanged();
    polish();
}

void TerminalView::releaseResources() {
    // The scene graph is going (window hidden for good, device lost): its nodes and their
    // textures go with it; the next frame makes a renderer for whatever comes next.
    QMutexLocker guard(&m_tokenLock);
    m_submitted.reset();
    m_replaceRenderer = true;
}

} // namespace termkit
