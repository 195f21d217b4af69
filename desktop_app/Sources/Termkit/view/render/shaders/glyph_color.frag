#version 440
// A colour atlas holds premultiplied pixels (emoji): only the vertex alpha applies.

layout(location = 0) in vec2 vTexCoord;
layout(location = 1) in vec4 vColor;
layout(location = 0) out vec4 fragColor;

layout(std140, binding = 0) uniform buf {
    mat4 qt_Matrix;
    float qt_Opacity;
    vec2 atlasSize;
};
layout(binding = 1) uniform sampler2D atlas;

void main() {
    fragColor = texture(atlas, vTexCoord) * vColor.a;
}
