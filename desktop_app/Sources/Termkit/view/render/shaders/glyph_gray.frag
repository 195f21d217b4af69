#version 440
// A grayscale atlas holds coverage: the glyph is the vertex colour at that coverage,
// premultiplied as the scene graph blends.

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
    float coverage = texture(atlas, vTexCoord).r;
    fragColor = vec4(vColor.rgb * vColor.a, vColor.a) * coverage;
}
