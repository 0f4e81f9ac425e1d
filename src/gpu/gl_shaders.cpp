// The shader stages of the output renderer and the building of its three
// programs.
//
// All stages share one uniform block, passed by value with every draw as two
// arrays (eight float vectors, two integer vectors) so that no buffer is
// written per draw. Effect and group quads travel the same way: four
// vertices (x, y, u, v) picked by gl_VertexID.
#include <string>

#include "gl_output_renderer.h"
#include "gl_util.h"

namespace {

const char kHeader[] = R"(#version 300 es
precision highp float;
precision highp int;
uniform vec4 Uf[8];
uniform ivec4 Ui[2];
#define view Uf[0]
#define place Uf[1]
#define color Uf[2]
#define invA Uf[3]
#define invB Uf[4]
#define cover Uf[5]
#define texSize Uf[6]
#define clipRect Uf[7]
#define flags Ui[0]
#define flags2 Ui[1]
)";

// Five floats a vertex: x, y in scene pixels, u, v in surface units, w the
// homogeneous weight. Multiplying the position by w makes the rasteriser's
// perspective division interpolate u, v across a projective quad.
const char kVsLayer[] = R"(
layout(location = 0) in vec2 aXY;
layout(location = 1) in vec2 aUV;
layout(location = 2) in float aW;
out vec2 uv;
void main() {
  vec2 px = aXY * place.x + vec2(place.y, place.z);
  vec2 ndc = vec2(px.x / view.x * 2.0 - 1.0, 1.0 - px.y / view.y * 2.0);
  gl_Position = vec4(ndc.x * aW, ndc.y * aW, 0.0, aW);
  uv = aUV;
}
)";

const char kVsQuad[] = R"(
uniform vec4 Q[4];
out vec2 uv;
void main() {
  vec4 q = Q[gl_VertexID];
  vec2 px = q.xy * place.x + vec2(place.y, place.z);
  vec2 ndc = vec2(px.x / view.x * 2.0 - 1.0, 1.0 - px.y / view.y * 2.0);
  gl_Position = vec4(ndc, 0.0, 1.0);
  uv = q.zw;
}
)";

const char kLuma[] = R"(
float lumaOf(vec3 c) { return clamp(0.598 * c.r + 1.174 * c.g + 0.228 * c.b - 0.04, 0.0, 1.0); }
)";

const char kFsLayer[] = R"(
uniform sampler2D tex;
uniform sampler2D mask;
uniform sampler2D clipTex;
in vec2 uv;
out vec4 fragColor;
void main() {
  vec2 s = uv;
  float ell = 1.0;
  if (flags.w == 1) {
    vec2 n = vec2(s.x / 1280.0 - 0.5, s.y / 720.0 - 0.5);
    float f = length(n) * 2.0;
    ell = clamp(0.5 - (f - 1.0) * 360.0, 0.0, 1.0);
    if (ell <= 0.0) discard;
  }
  float mk = 1.0;
  if (flags.y == 1) mk = texture(mask, vec2(s.x / 1280.0, s.y / 720.0)).r;
  float cl = 1.0;
  if (flags.z == 1) {
    // Target pixels with y down, as the scene's coordinates run.
    vec2 frag = vec2(gl_FragCoord.x, view.y - gl_FragCoord.y);
    vec2 scene = (frag - vec2(place.y, place.z)) / place.x;
    vec2 c = (scene - clipRect.xy) / clipRect.zw;
    if (c.x < 0.0 || c.y < 0.0 || c.x > 1.0 || c.y > 1.0)
      cl = 0.0;
    else
      cl = texture(clipTex, c).r;
  }
  vec2 q = vec2(invA.x * s.x + invA.y * s.y + invA.z, invB.x * s.x + invB.y * s.y + invB.z);
  if (q.x < 0.0 || q.y < 0.0 || q.x >= 1280.0 || q.y >= 720.0) discard;
  vec4 c = color;
  if (flags.x == 1) {
    vec2 tc = vec2((q.x - cover.y) / cover.x, (q.y - cover.z) / cover.x) / texSize.xy;
    if (tc.x < 0.0 || tc.y < 0.0 || tc.x > 1.0 || tc.y > 1.0) discard;
    c = texture(tex, tc);
    if (flags2.y == 1 && c.a > 0.0001) c.rgb /= c.a;
  }
  float a = c.a * ell * mk * cl * cover.w;
  if (flags2.x == 1) a *= lumaOf(c.rgb);
  fragColor = vec4(c.rgb, a);
}
)";

const char kFsFx[] = R"(
uniform sampler2D tex;
in vec2 uv;
out vec4 fragColor;
void main() {
  float a = texture(tex, uv).r * color.a * cover.w;
  if (flags2.x == 1) a *= lumaOf(color.rgb);
  fragColor = vec4(color.rgb, a);
}
)";

const char kFsGroup[] = R"(
uniform sampler2D tex;
in vec2 uv;
out vec4 fragColor;
void main() {
  vec4 c = texture(tex, uv);
  if (c.a > 0.0001) c.rgb /= c.a;
  float a = c.a * cover.w;
  if (flags2.x == 1) a *= lumaOf(c.rgb);
  fragColor = vec4(c.rgb, a);
}
)";

}  // namespace

const GlShaderSources& GlShaderSources::builtIn() {
  static const GlShaderSources sources{
      std::string(kHeader) + kVsLayer,
      std::string(kHeader) + kVsQuad,
      std::string(kHeader) + kLuma + kFsLayer,
      std::string(kHeader) + kLuma + kFsFx,
      std::string(kHeader) + kLuma + kFsGroup,
  };
  return sources;
}

bool GlOutputRenderer::buildPipelines(const GlShaderSources& src, std::string& error) {
  struct Stage {
    GLenum type;
    const std::string* text;
    const char* name;
    GLuint id;
  } stages[] = {
      {GL_VERTEX_SHADER, &src.vsLayer, "kvl_vs_layer", 0},  {GL_VERTEX_SHADER, &src.vsQuad, "kvl_vs_quad", 0},
      {GL_FRAGMENT_SHADER, &src.fsLayer, "kvl_fs_layer", 0}, {GL_FRAGMENT_SHADER, &src.fsFx, "kvl_fs_fx", 0},
      {GL_FRAGMENT_SHADER, &src.fsGroup, "kvl_fs_group", 0},
  };
  bool ok = true;
  for (Stage& s : stages) {
    s.id = compileStage(s.type, *s.text, s.name, error);
    if (!s.id) {
      ok = false;
      break;
    }
  }
  struct Prog {
    Pipeline* pipe;
    GLuint vs, fs;
    const char* name;
  } progs[] = {
      {&pipeLayer_, stages[0].id, stages[2].id, "pipeLayer"},
      {&pipeFx_, stages[1].id, stages[3].id, "pipeFx"},
      {&pipeGroup_, stages[1].id, stages[4].id, "pipeGroup"},
  };
  for (Prog& p : progs) {
    if (!ok) break;
    p.pipe->program = linkProgram(p.vs, p.fs, p.name, error);
    if (!p.pipe->program) {
      ok = false;
      break;
    }
    Pipeline& pl = *p.pipe;
    pl.locUf = glGetUniformLocation(pl.program, "Uf");
    pl.locUi = glGetUniformLocation(pl.program, "Ui");
    pl.locQ = glGetUniformLocation(pl.program, "Q");
    // Texture units are fixed: content 0, mask 1, clip 2.
    glUseProgram(pl.program);
    const char* units[] = {"tex", "mask", "clipTex"};
    for (GLint k = 0; k < 3; k++) {
      GLint loc = glGetUniformLocation(pl.program, units[k]);
      if (loc >= 0) glUniform1i(loc, k);
    }
  }
  glUseProgram(0);
  for (Stage& s : stages)
    if (s.id) glDeleteShader(s.id);  // the programs keep what they linked
  if (!ok) return false;

  glGenSamplers(1, &sampler_);
  glSamplerParameteri(sampler_, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
  glSamplerParameteri(sampler_, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
  glSamplerParameteri(sampler_, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
  glSamplerParameteri(sampler_, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);

  // The layer program reads the vertex buffer through one vertex array; the
  // quad programs read nothing but their uniforms.
  glGenVertexArrays(1, &layerVao_);
  glGenVertexArrays(1, &quadVao_);
  if (!sampler_ || !layerVao_ || !quadVao_) {
    error = "não foi possível criar o amostrador";
    return false;
  }
  return true;
}
