#include "view/ViewScene.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <unordered_map>

#include "pod/IndexRange.h"
#include "qsn/QelSceneGraphModel.h"

namespace korvex::view {
namespace {

// Vertex attribute strides beyond this are not portable to every OpenGL implementation.
constexpr uint32_t kMaxAttributeStride = 2048;
constexpr float kAutomaticFovY = 0.7853982f;  // 45 degrees

Vec3 Load3(const float* p) { return {p[0], p[1], p[2]}; }

Vec3 LoadVec3At(const uint8_t* p) {
  float f[3];
  std::memcpy(f, p, sizeof f);
  return Load3(f);
}

// Whether `bytes` hold `count` elements of `used` bytes at `stride`.
bool Holds(uint64_t bytes, uint64_t count, uint64_t stride, uint64_t used) {
  return count == 0 || (count - 1) * stride + used <= bytes;
}

struct Array {
  const uint8_t* data = nullptr;
  uint64_t bytes = 0;
};

// A stream of the mesh part: from its buffer in the file, or re-read from the POD file.
Array MeshArray(const SSGNodeData& buffer, const CPODData& stream, bool podStreams) {
  if (podStreams) return {stream.pData, stream.nDataSize};
  return {buffer.data, buffer.length};
}

Array UVArray(const SSGQelMeshNodeData& m, bool podStreams) {
  if (podStreams) return {m.UVW[0].pData, m.UVW[0].nDataSize};
  return {m.UVWBuffer.data, m.UVWBuffer.length};  // set 0 comes first
}

int32_t LoadInt(const uint8_t* p) {
  int32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

Box AlignedBox(Vec3 lo, Vec3 hi) {
  Box b;
  for (int i = 0; i < 8; ++i) b.corner[i] = {i & 1 ? hi.x : lo.x, i & 2 ? hi.y : lo.y, i & 4 ? hi.z : lo.z};
  return b;
}

class Builder {
 public:
  Builder(QelSceneGraphModel& model, bool podStreams) : m_model(model), m_pod(podStreams) {}

  ViewScene Build() {
    for (SSGNodeHeader* h : m_model.nodeheader) {
      if (h == nullptr || h->index < 0 || static_cast<size_t>(h->index) >= m_model.recordCount(h->type))
        continue;
      m_name.assign(h->name, strnlen(h->name, sizeof h->name));
      void* record = m_model.record(h->type, h->index);
      switch (h->type) {
        case ESGMeshNode: AddMesh(DrawKind::Mesh, record); break;
        case ESGBillboardNode: AddMesh(DrawKind::Billboard, record); break;
        case ESGSkyBoxNode: AddMesh(DrawKind::SkyBox, record); break;
        case ESGCollisionBoxNode: AddMesh(DrawKind::CollisionBox, record); break;
        case ESGCollisionSphereNode: AddMesh(DrawKind::CollisionSphere, record); break;
        case ESGAnimationMeshNode: AddMesh(DrawKind::AnimatedMesh, record); break;
        case ESGSkeletalMeshNode: AddMesh(DrawKind::SkeletalMesh, record); break;
        case ESGMarkerNode: m_scene.markers.push_back({m_name, FromFloats(static_cast<SSGQelNodeData*>(record)->transform.f)}); break;
        case ESGCameraNode: AddCamera(*static_cast<SSGQelCameraNodeData*>(record), nullptr); break;
        case ESGAnimationCameraNode: {
          auto* c = static_cast<SSGQelAnimationCameraNodeData*>(record);
          AddCamera(*c, &c->animMatrixbuffer);
          break;
        }
        default: break;  // lights, materials and plain nodes show nothing
      }
    }
    return std::move(m_scene);
  }

 private:
  bool Skip(const std::string& why) {
    m_scene.skipped.push_back("node \"" + m_name + "\": " + why);
    return false;
  }

  bool AddMesh(DrawKind kind, void* record) {
    auto& m = *static_cast<SSGQelMeshNodeData*>(record);
    if (m.numVertex == 0 || m.numFace == 0) return true;  // nothing to draw, nothing wrong
    DrawMesh d;
    d.kind = kind;
    d.name = m_name;
    d.vertexCount = m.numVertex;
    d.triangleCount = m.numFace;
    const uint64_t nv = m.numVertex;

    const Array positions = MeshArray(m.vertexBuffer, m.vertex, m_pod);
    if (m.vertex.n != 3 || positions.data == nullptr || positions.bytes < nv * 12)
      return Skip("positions are not 3 floats for each of its " + std::to_string(nv) + " vertices");
    d.positions = reinterpret_cast<const float*>(positions.data);

    const Array faces = MeshArray(m.faceBuffer, m.face, m_pod);
    const uint64_t corners = uint64_t{m.numFace} * 3;
    if (faces.data == nullptr || faces.bytes < corners * 2 || corners > std::numeric_limits<int32_t>::max())
      return Skip("the triangle indices are shorter than its " + std::to_string(m.numFace) + " triangles");
    if (HighestIndex(faces.data, corners) >= nv)
      return Skip("a triangle uses a vertex beyond its " + std::to_string(nv) + " vertices");
    d.indices = reinterpret_cast<const uint16_t*>(faces.data);

    const Array normals = MeshArray(m.normalBuffer, m.normal, m_pod);
    if (m.normal.n == 3 && normals.data != nullptr && normals.bytes >= nv * 12)
      d.normals = reinterpret_cast<const float*>(normals.data);
    const Array uvs = UVArray(m, m_pod);
    if (m.numUVW > 0 && m.UVW[0].n == 2 && uvs.data != nullptr && uvs.bytes >= nv * 8)
      d.uvs = reinterpret_cast<const float*>(uvs.data);

    d.colour = kind == DrawKind::SkyBox ? Vec3{0.55f, 0.7f, 0.9f} : Vec3{0.8f, 0.78f, 0.72f};
    const int32_t material = m.materialIndex[0];
    // A material without colour (black diffuse, common where a texture gives the colour) is
    // drawn in the neutral colour too, or its shape would not show.
    if (material >= 0 && static_cast<size_t>(material) < m_model.material.size()) {
      const Vec3 diffuse = Load3(m_model.material[material]->diffuse);
      if (IsFinite(diffuse) && diffuse.x + diffuse.y + diffuse.z > 0) d.colour = diffuse;
    }
    d.transform = FromFloats(m.transform.f);
    d.sphere = {Load3(m.sphereCenter), m.sphereRadius};
    d.boxMin = Load3(m.boxMin);
    d.boxMax = Load3(m.boxMax);

    if (kind == DrawKind::AnimatedMesh) {
      auto& a = static_cast<SSGQelAnimationMeshNodeData&>(m);
      if (a.numAnimation == 0 || a.animMatrixbuffer.length / 64 < a.numAnimation || a.animMatrixbuffer.data == nullptr)
        return Skip("its frame matrices do not cover its " + std::to_string(a.numAnimation) + " frames");
      d.frameMatrices = reinterpret_cast<const float*>(a.animMatrixbuffer.data);
      d.frames = a.numAnimation;
    }
    if (kind == DrawKind::SkeletalMesh && !AddBones(static_cast<SSGQelSkeletalMeshNodeData&>(m), d)) return false;
    m_scene.frameCount = std::max(m_scene.frameCount, d.frames);
    m_scene.meshes.push_back(std::move(d));
    return true;
  }

  bool AddBones(const SSGQelSkeletalMeshNodeData& s, DrawMesh& d) {
    const uint32_t frames = s.numAnimation;
    if (frames == 0) return Skip("a skinned mesh without frames has no bone matrices");
    if (s.BatchBoneCnt.length < 4 || s.BatchBoneCnt.data == nullptr)
      return Skip("its bone count is missing");
    const int32_t declared = LoadInt(s.BatchBoneCnt.data);
    const uint32_t listed = s.Batch.data != nullptr ? s.Batch.length / 4 : 0;
    if (declared <= 0 || listed == 0) return Skip("it has no bones");
    const uint32_t bones = std::min<uint32_t>(static_cast<uint32_t>(declared), listed);

    const uint32_t slotsStored = s.sBoneIndexbuffer.data != nullptr ? s.sBoneIndexbuffer.length / 4 : 0;
    const uint64_t slotsWithMatrices =
        s.sBoneWorldMatrixbuffer.data != nullptr ? s.sBoneWorldMatrixbuffer.length / (uint64_t{64} * frames) : 0;
    // Each bone's first slot, found once rather than by a scan of the slots for every entry.
    std::unordered_map<int32_t, uint32_t> firstSlot;
    for (uint32_t slot = slotsStored; slot-- > 0;)
      firstSlot[LoadInt(s.sBoneIndexbuffer.data + 4 * slot)] = slot;
    for (uint32_t j = 0; j < bones; ++j) {
      const int32_t bone = LoadInt(s.Batch.data + 4 * j);
      const auto found = firstSlot.find(bone);
      if (found == firstSlot.end() || found->second >= slotsWithMatrices)
        return Skip("bone " + std::to_string(bone) + " has no matrices");
      d.batchSlots.push_back(found->second);
    }
    d.boneMatrices = reinterpret_cast<const float*>(s.sBoneWorldMatrixbuffer.data);
    d.frames = frames;

    // Bone indices are bytes, four to a component in the packed type. Up to four influences a
    // vertex are shaded; more are beyond the viewer.
    const bool packed = s.boneIdx.eType == EPODDataUByte4;
    if (!packed && s.boneIdx.eType != EPODDataUInt8)
      return Skip("its bone indices are not bytes");
    const uint64_t indices = uint64_t{s.boneIdx.n} * (packed ? 4 : 1);
    const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(std::min<uint64_t>(indices, s.boneWeight.n), 4));
    const uint64_t nv = s.numVertex;
    if (n == 0 || s.boneIdx.nStride > kMaxAttributeStride || s.boneWeight.nStride > kMaxAttributeStride ||
        s.BoneIdx_ptr.data == nullptr || s.BoneWeight_ptr.data == nullptr ||
        !Holds(s.BoneIdx_ptr.length, nv, s.boneIdx.nStride, n) || s.boneIdx.nStride < n ||
        !Holds(s.BoneWeight_ptr.length, nv, s.boneWeight.nStride, 4 * n) || s.boneWeight.nStride < 4 * n)
      return Skip("its bone indices and weights do not cover its " + std::to_string(nv) + " vertices");
    d.bonesPerVertex = n;
    d.boneIndices = s.BoneIdx_ptr.data;
    d.boneIndexStride = s.boneIdx.nStride;
    d.boneWeights = s.BoneWeight_ptr.data;
    d.boneWeightStride = s.boneWeight.nStride;
    if (s.sSpherebuffer.data != nullptr && s.sSpherebuffer.length / 24 >= frames) d.frameSpheres = s.sSpherebuffer.data;
    if (s.sAABBbuffer.data != nullptr && s.sAABBbuffer.length / 44 >= frames) d.frameBoxes = s.sAABBbuffer.data;
    return true;
  }

  bool AddCamera(const SSGQelCameraNodeData& c, const SSGNodeData* matrices) {
    DrawCamera d;
    d.name = m_name;
    d.transform = FromFloats(c.transform.f);
    if (matrices != nullptr) {
      if (c.numAnimation == 0 || matrices->data == nullptr || matrices->length / 64 < c.numAnimation)
        return Skip("its frame matrices do not cover its " + std::to_string(c.numAnimation) + " frames");
      d.frameMatrices = reinterpret_cast<const float*>(matrices->data);
      d.frames = c.numAnimation;
      m_scene.frameCount = std::max(m_scene.frameCount, d.frames);
    }
    d.fov = c.FOV;
    d.nearPlane = c.nearPlane;
    d.farPlane = c.farPlane;
    d.hasTarget = c.targetIndex >= 0;
    d.target = Load3(c.targetPosition);
    m_scene.cameras.push_back(std::move(d));
    return true;
  }

  QelSceneGraphModel& m_model;
  const bool m_pod;
  ViewScene m_scene;
  std::string m_name;
};

Mat4 FrameMatrix(const float* table, uint32_t frames, uint32_t frame, const Mat4& still) {
  if (table == nullptr || frames == 0) return still;
  return FromFloats(table + 16 * static_cast<size_t>(std::min(frame, frames - 1)));
}

}  // namespace

ViewScene BuildViewScene(QelSceneGraphModel& model, bool podStreams) { return Builder(model, podStreams).Build(); }

Mat4 MeshMatrix(const DrawMesh& mesh, uint32_t frame) {
  return FrameMatrix(mesh.frameMatrices, mesh.frames, frame, mesh.transform);
}

Mat4 CameraMatrix(const DrawCamera& camera, uint32_t frame) {
  return FrameMatrix(camera.frameMatrices, camera.frames, frame, camera.transform);
}

std::vector<Mat4> BoneMatrices(const DrawMesh& mesh, uint32_t frame) {
  std::vector<Mat4> out;
  if (mesh.boneMatrices == nullptr || mesh.frames == 0) return out;
  const size_t f = std::min(frame, mesh.frames - 1);
  // Bone indices are bytes: entries past the 256th are never reached, whatever the batch lists.
  const size_t reachable = std::min<size_t>(mesh.batchSlots.size(), 256);
  for (size_t j = 0; j < reachable; ++j)
    out.push_back(
        FromFloats(mesh.boneMatrices + 16 * (size_t{mesh.frames} * mesh.batchSlots[j] + f)));
  return out;
}

Sphere WorldSphere(const DrawMesh& mesh, uint32_t frame) {
  const uint32_t f = mesh.frames > 0 ? std::min(frame, mesh.frames - 1) : 0;
  if (mesh.frameSpheres != nullptr) {
    const uint8_t* e = mesh.frameSpheres + 24 * size_t{f};  // geom, centre, radius, reserved
    float radius;
    std::memcpy(&radius, e + 16, 4);
    return {LoadVec3At(e + 4), radius};
  }
  if (mesh.kind == DrawKind::AnimatedMesh) {
    const Mat4 m = MeshMatrix(mesh, f);
    return {TransformPoint(m, mesh.sphere.center), mesh.sphere.radius * MaxScale(m)};
  }
  return mesh.sphere;
}

Box WorldBox(const DrawMesh& mesh, uint32_t frame) {
  const uint32_t f = mesh.frames > 0 ? std::min(frame, mesh.frames - 1) : 0;
  if (mesh.frameBoxes != nullptr) {
    const uint8_t* e = mesh.frameBoxes + 44 * size_t{f};  // geom, min, max, centre, reserved
    return AlignedBox(LoadVec3At(e + 4), LoadVec3At(e + 16));
  }
  Box box = AlignedBox(mesh.boxMin, mesh.boxMax);
  if (mesh.kind == DrawKind::AnimatedMesh) {
    const Mat4 m = MeshMatrix(mesh, f);
    for (Vec3& c : box.corner) c = TransformPoint(m, c);
  }
  return box;
}

Sphere SceneBounds(const ViewScene& scene) {
  const float inf = std::numeric_limits<float>::infinity();
  Vec3 lo{inf, inf, inf}, hi{-inf, -inf, -inf};
  for (const DrawMesh& mesh : scene.meshes)
    for (uint32_t f = 0; mesh.kind != DrawKind::SkyBox && f < std::max(mesh.frames, 1u); ++f) {
      const Sphere s = WorldSphere(mesh, f);
      if (!IsFinite(s.center) || !std::isfinite(s.radius) || s.radius < 0) continue;
      const Vec3 r{s.radius, s.radius, s.radius};
      const Vec3 a = s.center - r, b = s.center + r;
      lo = {std::min(lo.x, a.x), std::min(lo.y, a.y), std::min(lo.z, a.z)};
      hi = {std::max(hi.x, b.x), std::max(hi.y, b.y), std::max(hi.z, b.z)};
    }
  if (!(lo.x <= hi.x)) return {};
  return {(lo + hi) * 0.5f, Length(hi - lo) * 0.5f};
}

namespace {

// Clip planes that hold the bounds seen from `eye`.
void FitPlanes(View& v, Vec3 eye, const Sphere& bounds) {
  const float radius = std::max(bounds.radius, 1e-3f);
  const float distance = Length(bounds.center - eye);
  v.farPlane = distance + radius * 1.5f;
  v.nearPlane = std::max(distance - radius * 1.5f, v.farPlane * 1e-4f);
}

}  // namespace

View AutomaticView(const Sphere& bounds, float aspect) {
  View v;
  v.fovY = kAutomaticFovY;
  const float radius = std::max(bounds.radius, 1e-3f);
  const float half = std::min(v.fovY / 2, std::atan(std::tan(v.fovY / 2) * aspect));
  const float distance = radius / std::sin(half) * 1.02f;
  const Vec3 eye = bounds.center + Normalised({0.55f, 0.4f, 1.0f}) * distance;
  v.viewMatrix = LookAt(eye, bounds.center, {0, 1, 0});
  v.eye = eye;
  FitPlanes(v, eye, bounds);
  return v;
}

View CameraView(const DrawCamera& camera, uint32_t frame, const Sphere& bounds) {
  const Mat4 m = CameraMatrix(camera, frame);
  const Vec3 eye{m.m[12], m.m[13], m.m[14]};
  // A camera looks at its target, or else down its node's negative Y axis, as the scene's own
  // evaluation has it. The scene gives no up direction; the world's +Y is taken.
  const Vec3 target = camera.hasTarget ? camera.target : eye - Vec3{m.m[4], m.m[5], m.m[6]};
  View v;
  v.viewMatrix = LookAt(eye, target, {0, 1, 0});
  v.eye = eye;
  v.fovY = std::isfinite(camera.fov) && camera.fov > 0.01f && camera.fov < 3.1f ? camera.fov : kAutomaticFovY;
  if (std::isfinite(camera.nearPlane) && std::isfinite(camera.farPlane) && camera.nearPlane > 0 &&
      camera.farPlane > camera.nearPlane) {
    v.nearPlane = camera.nearPlane;
    v.farPlane = camera.farPlane;
  } else {
    FitPlanes(v, eye, bounds);
  }
  return v;
}

}  // namespace korvex::view
