#pragma once
// Pictures placed on the grid, as textured rectangles in the scene graph.

#include <QRectF>
#include <QSGNode>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "Termkit/graphics/ImageCodec.h"

class QQuickWindow;
class QSGImageNode;
class QSGTexture;

namespace termkit {

/// One rectangle of a picture to draw: the part `source` of its pixels (in their pixels)
/// into `target` (in the item's logical pixels).
struct ImageDraw {
    std::shared_ptr<const RgbaImage> pixels;
    QRectF target;
    QRectF source;
    int zIndex = 0;
    uint64_t sequence = 0;
    bool operator==(const ImageDraw&) const = default;
};

/// A layer of pictures: a fixed pool of image nodes made with the tree (the software
/// renderer places nodes added to the item's subtree later without its transform), and the
/// textures of the pictures on display, made once per picture and dropped when it leaves.
class ImageLayerNode : public QSGNode {
public:
    /// How many rectangles one layer draws; more in one frame are left out.
    static constexpr size_t kNodes = 32;

    explicit ImageLayerNode(QQuickWindow* window);
    ~ImageLayerNode() override;
    ImageLayerNode(const ImageLayerNode&) = delete;
    ImageLayerNode& operator=(const ImageLayerNode&) = delete;

    /// Draws these rectangles, in order (later ones on top). Render thread.
    void update(const std::vector<ImageDraw>& draws, QQuickWindow* window);

private:
    struct Texture {
        std::shared_ptr<const RgbaImage> pixels; // kept while the texture may read them
        QSGTexture* texture = nullptr;
    };
    std::vector<QSGImageNode*> m_nodes;
    QSGTexture* m_blank = nullptr;
    std::map<const RgbaImage*, Texture> m_textures;
};

} // namespace termkit
