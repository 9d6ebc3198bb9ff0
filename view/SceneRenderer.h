#pragma once
// Draws a ViewScene with OpenGL 3.3 core into the bound framebuffer. Every stream is uploaded once;
// a frame changes only matrices (and the few lines of markers and bounds).

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "view/Image.h"
#include "view/ViewScene.h"

namespace korvex::view {

struct DrawOptions {
  bool bounds = false;     // each mesh's bounding sphere and box
  bool uvChecker = false;  // shade by texture coordinates with a checker pattern
};

// The colour everywhere nothing is drawn.
constexpr uint8_t kBackground[3] = {46, 51, 61};

// What to render: an image of `columns` x `rows` cells, filled row by row from the top left,
// cell i showing frame `frames[i]` through `camera` (null: the automatic view).
struct RenderRequest {
  uint32_t width = 800, height = 600;
  uint32_t columns = 1, rows = 1;
  std::vector<uint32_t> frames{0};
  const DrawCamera* camera = nullptr;
  DrawOptions options;
};

// The whole job, scene in, image out: a headless context, an offscreen target, the renderer.
// False with `error` set when no context can be had or the image is beyond the implementation.
bool RenderScene(const ViewScene& scene, const RenderRequest& request, Image& image, std::string& error);

class SceneRenderer {
 public:
  // Needs a current context; the scene's arrays must outlive Upload.
  explicit SceneRenderer(const ViewScene& scene);
  ~SceneRenderer();
  SceneRenderer(const SceneRenderer&) = delete;
  SceneRenderer& operator=(const SceneRenderer&) = delete;

  // Compiles the shaders and uploads every mesh; false with `error` set on failure.
  bool Upload(std::string& error);
  // Clears the whole bound framebuffer to the background.
  void Clear() const;
  // Draws `frame` seen through `view` into the rectangle (x, y from the bottom left).
  void Draw(const View& view, uint32_t frame, int x, int y, int width, int height, const DrawOptions& options);

 private:
  struct MeshBuffers;
  void DrawLines(const std::vector<float>& vertices, const Mat4& viewMatrix, const Mat4& projection);

  const ViewScene& m_scene;
  float m_markerSize = 1;
  // By mesh of the scene; meshes drawn from the same arrays (headers naming one record) share.
  std::vector<std::shared_ptr<MeshBuffers>> m_meshes;
  unsigned m_meshProgram = 0, m_lineProgram = 0;
  unsigned m_boneBuffer = 0, m_boneTexture = 0;
  unsigned m_lineArray = 0, m_lineBuffer = 0;
};

}  // namespace korvex::view
