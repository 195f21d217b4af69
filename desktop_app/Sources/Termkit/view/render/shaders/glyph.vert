#version 440
// Glyph quads: positions in item coordinates, atlas coordinates in texels. Dividing by the
// atlas size here lets the atlas grow without a single vertex being rebuilt.

layout(location = 0) in vec4 position;
layout(location = 1) in vec2 texel;
layout(location = 2) in vec4 color;

layout(location = 0) out vec2 vTexCoord;
layout(location = 1) out vec4 vColor;

layout(std140, binding = 0) uniform buf {
    mat4 qt_Matrix;
    float qt_Opacity;
    vec2 atlasSize;
};

out gl_PerVertex { vec4 gl_Position; };

void main() {
    vTexCoord = texel / atlasSize;
    vColor = color * qt_Opacity;
    gl_Position = qt_Matrix * position;
}
