#include "view/SceneRenderer.h"

#define GL_GLEXT_PROTOTYPES 1
#include <GL/gl.h>
#include <GL/glext.h>

#include <cmath>
#include <map>
#include <tuple>

#include "view/GLContext.h"

namespace korvex::view {
namespace {

// Attribute locations shared by the mesh shader and the buffers.
enum : GLuint { kPosition = 0, kNormal = 1, kUV = 2, kBoneIndex = 3, kBoneWeight = 4 };

const char* const kMeshVertexShader = R"(#version 330 core
layout(location = 0) in vec3 aPosition;
layout(location = 1) in vec3 aNormal;
layout(location = 2) in vec2 aUV;
layout(location = 3) in uvec4 aBoneIndex;
layout(location = 4) in vec4 aBoneWeight;
uniform mat4 uModel;
uniform mat4 uView;
uniform mat4 uProjection;
uniform int uInfluences;   // bone influences a vertex; 0 when placed by uModel
uniform int uBatchSize;    // matrices in uBones
uniform samplerBuffer uBones;  // four texels a matrix, one matrix a batch entry
out vec3 vNormal;
out vec3 vEyePosition;
out vec2 vUV;

mat4 Bone(uint i) {
  int b = int(min(i, uint(uBatchSize - 1))) * 4;  // an index past the batch takes its last bone
  return mat4(texelFetch(uBones, b), texelFetch(uBones, b + 1), texelFetch(uBones, b + 2),
              texelFetch(uBones, b + 3));
}

void main() {
  mat4 model = uModel;
  if (uInfluences > 0) {
    model = mat4(0.0);
    for (int k = 0; k < uInfluences; ++k) model += aBoneWeight[k] * Bone(aBoneIndex[k]);
  }
  vec4 eye = uView * (model * vec4(aPosition, 1.0));
  vEyePosition = eye.xyz;
  vNormal = mat3(uView) * (mat3(model) * aNormal);
  vUV = aUV;
  gl_Position = uProjection * eye;
}
)";

const char* const kMeshFragmentShader = R"(#version 330 core
in vec3 vNormal;
in vec3 vEyePosition;
in vec2 vUV;
uniform vec3 uColour;
uniform float uAlpha;
uniform bool uHasNormals;
uniform bool uChecker;
uniform bool uHasUV;
out vec4 fragment;

void main() {
  vec3 faceNormal = cross(dFdx(vEyePosition), dFdy(vEyePosition));
  vec3 n = uHasNormals && length(vNormal) > 0.0 ? vNormal : faceNormal;
  n = length(n) > 0.0 ? normalize(n) : vec3(0.0, 0.0, 1.0);
  // A light from above and behind the eye, on both sides of a face.
  float diffuse = abs(dot(n, normalize(vec3(0.35, 0.55, 1.0))));
  vec3 base = uColour;
  if (uChecker) {
    vec2 cell = floor(vUV * 8.0);
    base = !uHasUV ? vec3(0.75, 0.25, 0.75)
                   : (mod(cell.x + cell.y, 2.0) < 1.0 ? vec3(0.95) : vec3(0.12));
  }
  fragment = vec4(base * (0.3 + 0.7 * diffuse), uAlpha);
}
)";

const char* const kLineVertexShader = R"(#version 330 core
layout(location = 0) in vec3 aPosition;
layout(location = 1) in vec3 aColour;
uniform mat4 uView;
uniform mat4 uProjection;
out vec3 vColour;
void main() {
  vColour = aColour;
  gl_Position = uProjection * (uView * vec4(aPosition, 1.0));
}
)";

const char* const kLineFragmentShader = R"(#version 330 core
in vec3 vColour;
out vec4 fragment;
void main() { fragment = vec4(vColour, 1.0); }
)";

bool Compile(GLuint shader, const char* source, std::string& error) {
  glShaderSource(shader, 1, &source, nullptr);
  glCompileShader(shader);
  GLint ok = 0;
  glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
  if (ok) return true;
  char log[1024] = {};
  glGetShaderInfoLog(shader, sizeof log, nullptr, log);
  error = std::string("a shader does not compile: ") + log;
  return false;
}

GLuint Program(const char* vertex, const char* fragment, std::string& error) {
  const GLuint vs = glCreateShader(GL_VERTEX_SHADER), fs = glCreateShader(GL_FRAGMENT_SHADER);
  GLuint program = 0;
  if (Compile(vs, vertex, error) && Compile(fs, fragment, error)) {
    program = glCreateProgram();
    glAttachShader(program, vs);
    glAttachShader(program, fs);
    glLinkProgram(program);
    GLint ok = 0;
    glGetProgramiv(program, GL_LINK_STATUS, &ok);
    if (!ok) {
      char log[1024] = {};
      glGetProgramInfoLog(program, sizeof log, nullptr, log);
      error = std::string("the shaders do not link: ") + log;
      glDeleteProgram(program);
      program = 0;
    }
  }
  glDeleteShader(vs);
  glDeleteShader(fs);
  return program;
}

GLint Uniform(GLuint program, const char* name) { return glGetUniformLocation(program, name); }

void SetMatrix(GLuint program, const char* name, const Mat4& m) {
  glUniformMatrix4fv(Uniform(program, name), 1, GL_FALSE, m.m);
}

GLuint NewBuffer(GLenum target, const void* data, size_t bytes) {
  GLuint buffer = 0;
  glGenBuffers(1, &buffer);
  glBindBuffer(target, buffer);
  glBufferData(target, static_cast<GLsizeiptr>(bytes), data, GL_STATIC_DRAW);
  return buffer;
}

bool Translucent(DrawKind kind) { return kind == DrawKind::CollisionBox || kind == DrawKind::CollisionSphere; }

void AddLine(std::vector<float>& out, Vec3 a, Vec3 b, Vec3 colour) {
  for (Vec3 p : {a, b}) out.insert(out.end(), {p.x, p.y, p.z, colour.x, colour.y, colour.z});
}

void AddBox(std::vector<float>& out, const Box& box, Vec3 colour) {
  // Corners are numbered by bits: x, y, z; an edge joins corners one bit apart.
  for (int i = 0; i < 8; ++i)
    for (int bit = 1; bit < 8; bit <<= 1)
      if (!(i & bit)) AddLine(out, box.corner[i], box.corner[i | bit], colour);
}

void AddSphere(std::vector<float>& out, const Sphere& s, Vec3 colour) {
  const int kSegments = 48;
  for (int axis = 0; axis < 3; ++axis)
    for (int k = 0; k < kSegments; ++k) {
      Vec3 ends[2];
      for (int e = 0; e < 2; ++e) {
        const float a = 6.2831853f * static_cast<float>(k + e) / kSegments;
        const float c = std::cos(a) * s.radius, d = std::sin(a) * s.radius;
        const Vec3 offset = axis == 0 ? Vec3{c, d, 0} : axis == 1 ? Vec3{c, 0, d} : Vec3{0, c, d};
        ends[e] = s.center + offset;
      }
      AddLine(out, ends[0], ends[1], colour);
    }
}

}  // namespace

struct SceneRenderer::MeshBuffers {
  GLuint array = 0;
  std::vector<GLuint> buffers;
  ~MeshBuffers() {
    glDeleteVertexArrays(1, &array);
    glDeleteBuffers(static_cast<GLsizei>(buffers.size()), buffers.data());
  }
};

SceneRenderer::SceneRenderer(const ViewScene& scene) : m_scene(scene) {
  const Sphere bounds = SceneBounds(scene);
  m_markerSize = bounds.radius > 0 ? bounds.radius * 0.05f : 1.0f;
}

SceneRenderer::~SceneRenderer() {
  m_meshes.clear();
  glDeleteProgram(m_meshProgram);
  glDeleteProgram(m_lineProgram);
  glDeleteTextures(1, &m_boneTexture);
  const GLuint buffers[] = {m_boneBuffer, m_lineBuffer};
  glDeleteBuffers(2, buffers);
  glDeleteVertexArrays(1, &m_lineArray);
}

bool SceneRenderer::Upload(std::string& error) {
  m_meshProgram = Program(kMeshVertexShader, kMeshFragmentShader, error);
  if (m_meshProgram == 0) return false;
  m_lineProgram = Program(kLineVertexShader, kLineFragmentShader, error);
  if (m_lineProgram == 0) return false;

  // What a mesh's buffers are made of: meshes alike in all of it share one set.
  using Source = std::tuple<const void*, const void*, const void*, const void*, const void*,
                            const void*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t>;
  std::map<Source, std::shared_ptr<MeshBuffers>> made;
  for (const DrawMesh& mesh : m_scene.meshes) {
    const Source source{mesh.positions,       mesh.normals,         mesh.uvs,
                        mesh.boneIndices,     mesh.boneWeights,     mesh.indices,
                        mesh.vertexCount,     mesh.triangleCount,   mesh.bonesPerVertex,
                        mesh.boneIndexStride, mesh.boneWeightStride};
    std::shared_ptr<MeshBuffers>& shared = made[source];
    if (shared != nullptr) {
      m_meshes.push_back(shared);
      continue;
    }
    auto b = std::make_shared<MeshBuffers>();
    glGenVertexArrays(1, &b->array);
    glBindVertexArray(b->array);
    const size_t nv = mesh.vertexCount;
    auto attribute = [&](GLuint location, const void* data, size_t bytes, GLint size, GLenum type, GLsizei stride) {
      b->buffers.push_back(NewBuffer(GL_ARRAY_BUFFER, data, bytes));
      if (type == GL_UNSIGNED_BYTE)
        glVertexAttribIPointer(location, size, type, stride, nullptr);
      else
        glVertexAttribPointer(location, size, type, GL_FALSE, stride, nullptr);
      glEnableVertexAttribArray(location);
    };
    attribute(kPosition, mesh.positions, nv * 12, 3, GL_FLOAT, 12);
    if (mesh.normals != nullptr) attribute(kNormal, mesh.normals, nv * 12, 3, GL_FLOAT, 12);
    if (mesh.uvs != nullptr) attribute(kUV, mesh.uvs, nv * 8, 2, GL_FLOAT, 8);
    if (mesh.bonesPerVertex > 0) {
      // The raw per-vertex streams, at their own strides: only the bytes the last vertex reaches.
      const GLint n = static_cast<GLint>(mesh.bonesPerVertex);
      attribute(kBoneIndex, mesh.boneIndices, (nv - 1) * mesh.boneIndexStride + n, n, GL_UNSIGNED_BYTE,
                static_cast<GLsizei>(mesh.boneIndexStride));
      attribute(kBoneWeight, mesh.boneWeights, (nv - 1) * mesh.boneWeightStride + 4 * n, n, GL_FLOAT,
                static_cast<GLsizei>(mesh.boneWeightStride));
    }
    b->buffers.push_back(NewBuffer(GL_ELEMENT_ARRAY_BUFFER, mesh.indices, size_t{mesh.triangleCount} * 6));
    glBindVertexArray(0);
    shared = b;
    m_meshes.push_back(std::move(b));
  }

  glGenBuffers(1, &m_boneBuffer);
  glGenTextures(1, &m_boneTexture);
  glGenVertexArrays(1, &m_lineArray);
  glBindVertexArray(m_lineArray);
  glGenBuffers(1, &m_lineBuffer);
  glBindBuffer(GL_ARRAY_BUFFER, m_lineBuffer);
  glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 24, nullptr);
  glVertexAttribPointer(1, 3, GL_FLOAT, GL_FALSE, 24, reinterpret_cast<const void*>(12));
  glEnableVertexAttribArray(0);
  glEnableVertexAttribArray(1);
  glBindVertexArray(0);

  if (glGetError() != GL_NO_ERROR) {
    error = "the scene's arrays cannot be handed to OpenGL (out of memory?)";
    return false;
  }
  return true;
}

void SceneRenderer::Clear() const {
  glDisable(GL_SCISSOR_TEST);
  glClearColor(kBackground[0] / 255.0f, kBackground[1] / 255.0f, kBackground[2] / 255.0f, 1);
  glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
}

void SceneRenderer::Draw(const View& view, uint32_t frame, int x, int y, int width, int height,
                         const DrawOptions& options) {
  glViewport(x, y, width, height);
  glEnable(GL_SCISSOR_TEST);
  glScissor(x, y, width, height);
  glClear(GL_DEPTH_BUFFER_BIT);
  glEnable(GL_DEPTH_TEST);
  glEnable(GL_MULTISAMPLE);
  const Mat4 projection = Perspective(view.fovY, static_cast<float>(width) / static_cast<float>(height),
                                      view.nearPlane, view.farPlane);

  glUseProgram(m_meshProgram);
  SetMatrix(m_meshProgram, "uView", view.viewMatrix);
  SetMatrix(m_meshProgram, "uProjection", projection);
  glUniform1i(Uniform(m_meshProgram, "uBones"), 0);
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_BUFFER, m_boneTexture);

  // Sky boxes that hold the eye first and behind everything, then visible geometry, then
  // collision volumes over it, see-through, with their edges; a sky box seen from outside is
  // drawn by its edges only, so that it hides nothing.
  for (int pass = 0; pass < 3; ++pass) {
    for (size_t i = 0; i < m_scene.meshes.size(); ++i) {
      const DrawMesh& mesh = m_scene.meshes[i];
      const Sphere sphere = WorldSphere(mesh, frame);
      const bool skyAround = mesh.kind == DrawKind::SkyBox && Length(view.eye - sphere.center) < sphere.radius;
      const bool translucent = Translucent(mesh.kind) || (mesh.kind == DrawKind::SkyBox && !skyAround);
      const int meshPass = skyAround ? 0 : translucent ? 2 : 1;
      if (meshPass != pass) continue;
      glDepthMask(pass == 1 ? GL_TRUE : GL_FALSE);
      SetMatrix(m_meshProgram, "uModel", MeshMatrix(mesh, frame));
      glUniform1i(Uniform(m_meshProgram, "uInfluences"), 0);
      if (mesh.bonesPerVertex > 0) {
        const std::vector<Mat4> bones = BoneMatrices(mesh, frame);
        glBindBuffer(GL_TEXTURE_BUFFER, m_boneBuffer);
        glBufferData(GL_TEXTURE_BUFFER, static_cast<GLsizeiptr>(bones.size() * sizeof(Mat4)), bones.data(),
                     GL_STREAM_DRAW);
        glTexBuffer(GL_TEXTURE_BUFFER, GL_RGBA32F, m_boneBuffer);
        glUniform1i(Uniform(m_meshProgram, "uInfluences"), static_cast<GLint>(mesh.bonesPerVertex));
        glUniform1i(Uniform(m_meshProgram, "uBatchSize"), static_cast<GLint>(bones.size()));
      }
      glUniform1i(Uniform(m_meshProgram, "uHasNormals"), mesh.normals != nullptr);
      glUniform1i(Uniform(m_meshProgram, "uHasUV"), mesh.uvs != nullptr);
      glUniform1i(Uniform(m_meshProgram, "uChecker"), options.uvChecker && !translucent);  // volumes keep their tint
      glBindVertexArray(m_meshes[i]->array);
      const GLsizei corners = static_cast<GLsizei>(size_t{mesh.triangleCount} * 3);
      if (!translucent) {
        glUniform3f(Uniform(m_meshProgram, "uColour"), mesh.colour.x, mesh.colour.y, mesh.colour.z);
        glUniform1f(Uniform(m_meshProgram, "uAlpha"), 1);
        glDrawElements(GL_TRIANGLES, corners, GL_UNSIGNED_SHORT, nullptr);
        continue;
      }
      const Vec3 tint = mesh.kind == DrawKind::CollisionBox      ? Vec3{0.2f, 0.9f, 0.3f}
                        : mesh.kind == DrawKind::CollisionSphere ? Vec3{0.2f, 0.8f, 0.95f}
                                                                 : mesh.colour;
      glEnable(GL_BLEND);
      glBlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ZERO, GL_ONE);  // the image stays opaque
      glUniform3f(Uniform(m_meshProgram, "uColour"), tint.x, tint.y, tint.z);
      if (mesh.kind != DrawKind::SkyBox) {
        glUniform1f(Uniform(m_meshProgram, "uAlpha"), 0.3f);
        glDrawElements(GL_TRIANGLES, corners, GL_UNSIGNED_SHORT, nullptr);
      }
      glPolygonMode(GL_FRONT_AND_BACK, GL_LINE);
      glUniform1f(Uniform(m_meshProgram, "uAlpha"), 1);
      glDrawElements(GL_TRIANGLES, corners, GL_UNSIGNED_SHORT, nullptr);
      glPolygonMode(GL_FRONT_AND_BACK, GL_FILL);
      glDisable(GL_BLEND);
    }
  }
  glDepthMask(GL_TRUE);

  std::vector<float> lines;
  for (const DrawMarker& marker : m_scene.markers) {
    const Vec3 origin = TransformPoint(marker.transform, {});
    const float* m = marker.transform.m;
    const Vec3 axes[3] = {{m[0], m[1], m[2]}, {m[4], m[5], m[6]}, {m[8], m[9], m[10]}};
    const Vec3 colours[3] = {{1, 0.2f, 0.2f}, {0.2f, 1, 0.2f}, {0.3f, 0.4f, 1}};
    for (int a = 0; a < 3; ++a) AddLine(lines, origin, origin + Normalised(axes[a]) * m_markerSize, colours[a]);
  }
  if (options.bounds)
    for (const DrawMesh& mesh : m_scene.meshes) {
      AddSphere(lines, WorldSphere(mesh, frame), {1, 0.9f, 0.2f});
      AddBox(lines, WorldBox(mesh, frame), {1, 0.5f, 0.1f});
    }
  DrawLines(lines, view.viewMatrix, projection);
  glBindVertexArray(0);
}

void SceneRenderer::DrawLines(const std::vector<float>& vertices, const Mat4& viewMatrix, const Mat4& projection) {
  if (vertices.empty()) return;
  glUseProgram(m_lineProgram);
  SetMatrix(m_lineProgram, "uView", viewMatrix);
  SetMatrix(m_lineProgram, "uProjection", projection);
  glBindVertexArray(m_lineArray);
  glBindBuffer(GL_ARRAY_BUFFER, m_lineBuffer);
  glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(vertices.size() * sizeof(float)), vertices.data(),
               GL_STREAM_DRAW);
  glDrawArrays(GL_LINES, 0, static_cast<GLsizei>(vertices.size() / 6));
}

bool RenderScene(const ViewScene& scene, const RenderRequest& request, Image& image, std::string& error) {
  GLContext context;
  OffscreenTarget target;
  if (!context.Create(error) || !target.Create(request.width, request.height, error)) return false;
  SceneRenderer renderer(scene);
  if (!renderer.Upload(error)) return false;

  const Sphere bounds = SceneBounds(scene);
  target.Bind();
  renderer.Clear();
  const int cellWidth = static_cast<int>(request.width / request.columns);
  const int cellHeight = static_cast<int>(request.height / request.rows);
  const float aspect = static_cast<float>(cellWidth) / static_cast<float>(cellHeight);
  for (uint32_t cell = 0; cell < request.columns * request.rows && cell < request.frames.size(); ++cell) {
    const uint32_t frame = request.frames[cell];
    const View view =
        request.camera != nullptr ? CameraView(*request.camera, frame, bounds) : AutomaticView(bounds, aspect);
    const int x = static_cast<int>(cell % request.columns) * cellWidth;
    const int y = static_cast<int>(request.height) - static_cast<int>(cell / request.columns + 1) * cellHeight;
    renderer.Draw(view, frame, x, y, cellWidth, cellHeight, request.options);
  }
  image = target.Read();
  return true;
}

}  // namespace korvex::view
