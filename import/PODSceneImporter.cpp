#include "import/PODSceneImporter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_map>

#include "import/AnimationSampling.h"
#include "convert/SceneRules.h"

namespace korvex::podimport {

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;

// Light kinds of the written scene.
enum : uint32_t { kPointLight = 0, kDirectionalLight = 1, kSpotLight = 2 };

// Tolerance of the comparison of frame 0 with the bind pose, relative to the matrix's size.
const float kBindTolerance = 1e-4f;

std::string Quoted(const std::string& text) {
  return "\"" + text + "\"";
}

std::string MeshName(const aiMesh& mesh, uint32_t index) {
  const std::string name = NameOf(mesh.mName);
  return name.empty() ? "#" + std::to_string(index) : Quoted(name);
}

aiVector3D UnitOr(const aiVector3D& v, const aiVector3D& fallback) {
  const double length = std::sqrt(double(v.x) * v.x + double(v.y) * v.y + double(v.z) * v.z);
  if (!std::isfinite(length) || length == 0.0) return fallback;
  return aiVector3D(static_cast<ai_real>(v.x / length), static_cast<ai_real>(v.y / length),
                    static_cast<ai_real>(v.z / length));
}

float FiniteOr(float value, float fallback) {
  return std::isfinite(value) ? value : fallback;
}

void GetColour(const aiMaterial& material, const char* key, unsigned int type, unsigned int index,
               float out[3], float fallback) {
  aiColor3D colour(fallback, fallback, fallback);
  material.Get(key, type, index, colour);
  out[0] = FiniteOr(colour.r, fallback);
  out[1] = FiniteOr(colour.g, fallback);
  out[2] = FiniteOr(colour.b, fallback);
}

// The file name of a material's diffuse texture as the source gives it. Embedded textures ("*N")
// have no file name.
std::string DiffuseTexture(const aiMaterial& material, bool& embedded) {
  embedded = false;
  aiString path;
  if (material.GetTexture(aiTextureType_DIFFUSE, 0, &path) != AI_SUCCESS &&
      material.GetTexture(aiTextureType_BASE_COLOR, 0, &path) != AI_SUCCESS)
    return std::string();
  std::string name = NameOf(path);
  if (!name.empty() && name[0] == '*') {
    embedded = true;
    return std::string();
  }
  return name;
}

// Keys of one channel: `floats` a key, `frames` keys.
bool AllKeysEqual(const std::vector<float>& keys, size_t floats) {
  for (size_t k = floats; k < keys.size(); k += floats) {
    if (std::memcmp(&keys[k], &keys[0], floats * sizeof(float)) != 0) return false;
  }
  return true;
}

}  // namespace

PODSceneImporter::PODSceneImporter(const aiScene& scene, const ImportOptions& options,
                                   const std::string& modelFolder)
    : m_scene(scene), m_options(options), m_modelFolder(modelFolder) {}

void PODSceneImporter::Note(const std::string& text) {
  std::vector<std::string>& notes = m_summary.notes;
  if (std::find(notes.begin(), notes.end(), text) == notes.end()) notes.push_back(text);
}

// The name the POD file gives a texture the model names `written`; each change is listed in the
// summary once, and so are distinct textures that end up with one name.
std::string PODSceneImporter::TextureNameOf(const std::string& written) {
  const auto known = m_textureNamed.find(written);
  if (known != m_textureNamed.end()) return known->second;
  const TextureName named = NameTexture(written, m_modelFolder, m_options.textureNames);
  m_textureNamed.emplace(written, named.name);
  if (named.name != written)
    m_summary.renamedTextures.push_back({written, named.name});
  if (named.outsideModelFolder)
    Note("texture " + Quoted(written) + " lies outside the model's folder: named by its file name " +
         "(--texture-names keep keeps the path)");
  const auto first = m_textureFrom.emplace(named.name, written);
  if (!first.second)
    Note("textures " + Quoted(first.first->second) + " and " + Quoted(written) +
         " are both named " + Quoted(named.name) + ": one texture");
  return named.name;
}

bool PODSceneImporter::Convert(CPODScene& out, ImportSummary& summary, std::string& error) {
  if (m_scene.mRootNode == nullptr) {
    error = "the file holds no scene";
    return false;
  }
  if (!m_hierarchy.Build(m_scene.mRootNode, kMaxSourceNodes)) {
    error = "the file holds more than " + std::to_string(kMaxSourceNodes) + " nodes";
    return false;
  }
  if (m_hierarchy.RevisitedNodes() > 0)
    Note(std::to_string(m_hierarchy.RevisitedNodes()) +
         " nodes stand under more than one parent: kept under the first only");
  const size_t n = m_hierarchy.Size();
  m_light.assign(n, -1);
  m_camera.assign(n, -1);
  m_channel.assign(n, -1);
  m_isBone.assign(n, 0);
  m_hasBind.assign(n, 0);
  m_bindWorld.assign(n, aiMatrix4x4());
  m_samples.assign(n, std::vector<LocalTransform>());

  if (!SelectAnimation(error)) return false;
  ResolveLightsAndCameras();

  const uint32_t meshCount = m_scene.mMeshes ? m_scene.mNumMeshes : 0;
  m_meshes.assign(meshCount, MeshConversion());
  bool anyMesh = false;
  uint64_t badReferences = 0;
  for (size_t s = 0; s < n; ++s) {
    const aiNode& node = *m_hierarchy[s].node;
    for (unsigned int k = 0; node.mMeshes && k < node.mNumMeshes; ++k) {
      const unsigned int mesh = node.mMeshes[k];
      if (mesh >= meshCount || m_scene.mMeshes[mesh] == nullptr) {
        ++badReferences;
        continue;
      }
      if (!ConvertMesh(mesh, error)) return false;
      anyMesh = anyMesh || m_meshes[mesh].usable;
    }
  }
  if (badReferences > 0)
    Note(std::to_string(badReferences) + " node references to missing meshes left out");
  if (!anyMesh) {
    error = meshCount == 0 ? "the file holds no meshes"
                           : "the file holds no triangles (only points, lines or empty meshes)";
    return false;
  }
  if (!SampleFrames(error)) return false;
  PlanNodes();
  PlanMaterials();
  if (!Build(out, error)) return false;
  if (!CheckLightMaps(out, error)) return false;
  summary = m_summary;
  return true;
}

bool PODSceneImporter::SelectAnimation(std::string& error) {
  const unsigned int count = m_scene.mAnimations ? m_scene.mNumAnimations : 0;
  if (m_options.maxFrames == 0) return true;  // a still scene was asked for
  if (count == 0) {
    if (m_options.animation.empty()) return true;
    error = "--animation " + m_options.animation + ": the file holds no animation";
    return false;
  }
  int64_t chosen = m_options.animation.empty() ? 0 : -1;
  for (unsigned int i = 0; chosen < 0 && i < count; ++i) {
    if (m_scene.mAnimations[i] && NameOf(m_scene.mAnimations[i]->mName) == m_options.animation)
      chosen = i;
  }
  if (chosen < 0 && m_options.animation.find_first_not_of("0123456789") == std::string::npos &&
      m_options.animation.size() < 10) {
    const long index = std::stol(m_options.animation);
    if (index < static_cast<long>(count)) chosen = index;
  }
  if (chosen < 0) {
    error = "no animation named or numbered \"" + m_options.animation + "\"; the file holds " +
            std::to_string(count) + ":";
    for (unsigned int i = 0; i < count && i < 20; ++i)
      error += " " + std::to_string(i) + " " +
               Quoted(m_scene.mAnimations[i] ? NameOf(m_scene.mAnimations[i]->mName) : "");
    return false;
  }
  m_animation = m_scene.mAnimations[chosen];
  if (m_animation == nullptr) return true;
  const std::string name = NameOf(m_animation->mName);
  m_summary.animation = name.empty() ? "#" + std::to_string(chosen) : name;
  if (count > 1)
    Note("the file holds " + std::to_string(count) + " animations: only " +
         Quoted(m_summary.animation) + " is sampled (choose with --animation)");
  return true;
}

void PODSceneImporter::ResolveLightsAndCameras() {
  for (unsigned int i = 0; m_scene.mLights && i < m_scene.mNumLights; ++i) {
    const aiLight* light = m_scene.mLights[i];
    if (light == nullptr) continue;
    const std::string name = Quoted(NameOf(light->mName));
    if (light->mType == aiLightSource_AMBIENT) {
      // Importers put an ambient light's colour in its ambient colour, some in the diffuse.
      const aiColor3D& a = light->mColorAmbient;
      const aiColor3D& colour = (a.r != 0 || a.g != 0 || a.b != 0) ? a : light->mColorDiffuse;
      m_ambient[0] += FiniteOr(colour.r, 0.0f);
      m_ambient[1] += FiniteOr(colour.g, 0.0f);
      m_ambient[2] += FiniteOr(colour.b, 0.0f);
      Note("ambient light " + name + " is added to the scene's ambient colour");
      continue;
    }
    const int32_t s = m_hierarchy.Find(light->mName);
    if (s < 0) {
      Note("light " + name + " is placed by no node: left out");
    } else if (m_light[s] >= 0) {
      Note("node " + name + " places two lights: the second is left out");
    } else {
      m_light[s] = static_cast<int32_t>(i);
      if (light->mType == aiLightSource_AREA)
        Note("area light " + name + " is written as a point light");
    }
  }
  for (unsigned int i = 0; m_scene.mCameras && i < m_scene.mNumCameras; ++i) {
    const aiCamera* camera = m_scene.mCameras[i];
    if (camera == nullptr) continue;
    const std::string name = Quoted(NameOf(camera->mName));
    const int32_t s = m_hierarchy.Find(camera->mName);
    if (s < 0) {
      Note("camera " + name + " is placed by no node: left out");
    } else if (m_camera[s] >= 0) {
      Note("node " + name + " places two cameras: the second is left out");
    } else {
      m_camera[s] = static_cast<int32_t>(i);
    }
  }
  if (m_animation == nullptr) return;
  uint32_t unmatched = 0;
  for (unsigned int c = 0; m_animation->mChannels && c < m_animation->mNumChannels; ++c) {
    const aiNodeAnim* channel = m_animation->mChannels[c];
    if (channel == nullptr) continue;
    const int32_t s = m_hierarchy.Find(channel->mNodeName);
    if (s < 0)
      ++unmatched;
    else if (m_channel[s] < 0)
      m_channel[s] = static_cast<int32_t>(c);
  }
  if (unmatched > 0) Note(std::to_string(unmatched) + " animation channels name no node: ignored");
  if (m_animation->mNumMeshChannels > 0 || m_animation->mNumMorphMeshChannels > 0)
    Note("vertex and morph-target animation is not kept");
}

bool PODSceneImporter::ConvertMesh(uint32_t index, std::string& error) {
  MeshConversion& c = m_meshes[index];
  if (c.converted) return true;
  c.converted = true;
  const aiMesh& mesh = *m_scene.mMeshes[index];
  const std::string name = MeshName(mesh, index);
  const uint32_t vertexCount = mesh.mVertices ? mesh.mNumVertices : 0;

  std::vector<uint32_t> triangles;
  triangles.reserve(std::min<uint64_t>(mesh.mNumFaces, uint64_t{1} << 26) * 3);
  uint64_t otherFaces = 0;
  for (unsigned int f = 0; mesh.mFaces && f < mesh.mNumFaces; ++f) {
    const aiFace& face = mesh.mFaces[f];
    if (face.mNumIndices == 3 && face.mIndices && face.mIndices[0] < vertexCount &&
        face.mIndices[1] < vertexCount && face.mIndices[2] < vertexCount) {
      triangles.insert(triangles.end(), face.mIndices, face.mIndices + 3);
    } else {
      ++otherFaces;
    }
  }
  if (otherFaces > 0)
    Note("mesh " + name + ": " + std::to_string(otherFaces) +
         " faces that are not triangles (points, lines) left out");
  if (triangles.empty()) {
    Note("mesh " + name + " has no triangles: left out");
    return true;
  }
  for (uint32_t v = 0; v < vertexCount; ++v) {
    const aiVector3D& p = mesh.mVertices[v];
    if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z)) {
      error = "mesh " + name + ": vertex " + std::to_string(v) +
              " has a position that is not a "
              "finite number";
      return false;
    }
  }
  c.usable = true;

  if (mesh.mColors[0] != nullptr) Note("vertex colours are not kept");
  if (mesh.GetNumUVChannels() > 2) Note("texture-coordinate sets after the second are not kept");
  if (mesh.mNumAnimMeshes > 0) Note("morph targets are not kept");
  if (mesh.mNormals == nullptr) Note("mesh " + name + " has no normals: written as zero");

  std::vector<VertexInfluences> influences;
  if (mesh.mNumBones > 0 && mesh.mBones != nullptr) {
    std::unordered_map<int32_t, uint32_t> boneNumber;
    std::vector<const aiBone*> firstBone;
    std::vector<std::vector<BoneInfluence>> raw(vertexCount);
    uint32_t unresolved = 0;
    for (unsigned int b = 0; b < mesh.mNumBones; ++b) {
      const aiBone* bone = mesh.mBones[b];
      if (bone == nullptr) continue;
      const int32_t s = m_hierarchy.Find(bone->mName);
      if (s < 0) {
        ++unresolved;
        continue;
      }
      auto inserted = boneNumber.emplace(s, static_cast<uint32_t>(c.boneSource.size()));
      if (inserted.second) {
        c.boneSource.push_back(s);
        firstBone.push_back(bone);
      }
      for (unsigned int w = 0; bone->mWeights && w < bone->mNumWeights; ++w) {
        const aiVertexWeight& weight = bone->mWeights[w];
        if (weight.mVertexId < vertexCount)
          raw[weight.mVertexId].push_back(BoneInfluence{inserted.first->second, weight.mWeight});
      }
    }
    if (unresolved > 0)
      Note("mesh " + name + ": " + std::to_string(unresolved) +
           " bones name no node: their weights are left out");
    influences.resize(vertexCount);
    uint64_t limited = 0, unweighted = 0;
    for (uint32_t v = 0; v < vertexCount; ++v) {
      bool dropped = false;
      influences[v] = LimitInfluences(std::move(raw[v]), kMaxInfluences, &dropped);
      if (dropped) ++limited;
      if (influences[v].count == 0) ++unweighted;
    }
    c.skinned = unweighted < vertexCount;
    if (!c.skinned) {
      Note("mesh " + name + ": no vertex follows a bone: written without skin");
      c.boneSource.clear();
      influences.clear();
    } else {
      if (limited > 0)
        Note("mesh " + name + ": " + std::to_string(limited) +
             " vertices follow more than 4 bones: the 4 strongest are kept, scaled to sum 1");
      if (unweighted > 0)
        Note("mesh " + name + ": " + std::to_string(unweighted) + " vertices follow no bone");
      for (size_t b = 0; b < c.boneSource.size(); ++b)
        RegisterBind(c.boneSource[b], firstBone[b]->mOffsetMatrix, name);
    }
  }

  PartitionLimits limits;
  limits.maxVertices = 65535;
  limits.maxBones = static_cast<uint32_t>(m_options.maxBones);
  c.partition = PartitionMesh(triangles, vertexCount, c.skinned ? &influences : nullptr,
                              static_cast<uint32_t>(c.boneSource.size()), limits);
  c.podMesh.assign(c.partition.pieces.size(), -1);
  if (c.partition.prunedTriangles > 0)
    Note("mesh " + name + ": " + std::to_string(c.partition.prunedTriangles) +
         " triangles follow more bones together than --max-bones: they keep the strongest");
  for (const MeshPiece& piece : c.partition.pieces)
    for (const BoneBatch& batch : piece.batches)
      for (uint32_t bone : batch.bones) m_isBone[c.boneSource[bone]] = 1;
  return true;
}

void PODSceneImporter::RegisterBind(int32_t source, const aiMatrix4x4& offset,
                                    const std::string& meshName) {
  const std::string bone = Quoted(NameOf(m_hierarchy[source].node->mName));
  aiMatrix4x4 bind = offset;
  const ai_real determinant = offset.Determinant();
  if (IsFinite(offset) && std::isfinite(determinant) && determinant != 0) bind.Inverse();
  if (!IsFinite(offset) || !std::isfinite(determinant) || determinant == 0 || !IsFinite(bind)) {
    Note("bone " + bone + " of mesh " + meshName +
         " has an offset matrix that cannot be "
         "inverted: its pose at frame 0 stands for its bind pose");
    return;
  }
  if (!m_hasBind[source]) {
    m_hasBind[source] = 1;
    m_bindWorld[source] = bind;
  } else if (!TransformsClose(bind, m_bindWorld[source], kBindTolerance)) {
    Note("bone " + bone + ": mesh " + meshName +
         " is bound to it in another pose than an "
         "earlier mesh, whose bind pose is kept");
  }
}

bool PODSceneImporter::SampleFrames(std::string& error) {
  const size_t n = m_hierarchy.Size();
  if (m_animation != nullptr) {
    const uint64_t whole = WholeAnimationFrames(*m_animation, m_options.fps);
    const uint64_t frames =
        m_options.maxFrames < 0 ? whole : std::min<uint64_t>(whole, uint64_t(m_options.maxFrames));
    char fps[32];
    std::snprintf(fps, sizeof fps, "%g", m_options.fps);
    if (frames > kMaxFrames) {
      error = "animation " + Quoted(m_summary.animation) + " needs " + std::to_string(frames) +
              " frames at " + fps + " fps, more than the " + std::to_string(kMaxFrames) +
              " podimport samples: use --frames or a lower --fps";
      return false;
    }
    uint64_t animated = 0;
    for (size_t s = 0; s < n; ++s) animated += m_channel[s] >= 0 ? 1 : 0;
    if (animated * frames > kMaxNodeFrames) {
      error = "animation " + Quoted(m_summary.animation) + " moves " + std::to_string(animated) +
              " nodes over " + std::to_string(frames) + " frames, more than " +
              std::to_string(kMaxNodeFrames) + " node frames: use --frames or a lower --fps";
      return false;
    }
    m_sampledFrames = static_cast<uint32_t>(frames);
    for (size_t s = 0; s < n; ++s) {
      if (m_channel[s] < 0) continue;
      const aiNodeAnim& channel = *m_animation->mChannels[m_channel[s]];
      m_samples[s].resize(frames);
      for (uint64_t k = 0; k < frames; ++k)
        m_samples[s][k] =
            SampleChannel(channel, FrameTicks(*m_animation, m_options.fps, k), m_hierarchy[s].rest);
    }
  }

  bool anyBind = false;
  for (size_t s = 0; s < n; ++s) anyBind = anyBind || (m_isBone[s] && m_hasBind[s]);
  if (m_sampledFrames > 0 && anyBind) {
    // Frame 0 is kept as the bind pose when every bound bone stands there already.
    std::vector<aiMatrix4x4> world(n);
    for (size_t s = 0; s < n; ++s) {
      const int32_t parent = m_hierarchy[s].parent;
      world[s] = SampledLocalMatrix(s, 0);
      if (parent >= 0) world[s] = world[parent] * world[s];
      if (m_isBone[s] && m_hasBind[s] && !TransformsClose(world[s], m_bindWorld[s], kBindTolerance))
        m_bindInserted = true;
    }
  }
  if (m_bindInserted) {
    // Bones stand in their bind pose, every other node in its rest pose.
    std::vector<aiMatrix4x4> world(n);
    m_bindLocal.resize(n);
    for (size_t s = 0; s < n; ++s) {
      const int32_t parent = m_hierarchy[s].parent;
      const aiMatrix4x4 parentWorld = parent >= 0 ? world[parent] : aiMatrix4x4();
      m_bindLocal[s] = m_hierarchy[s].rest;
      world[s] = parentWorld * ComposeTransform(m_hierarchy[s].rest);
      if (!(m_isBone[s] && m_hasBind[s])) continue;
      aiMatrix4x4 inverse = parentWorld;
      inverse.Inverse();
      const aiMatrix4x4 local = inverse * m_bindWorld[s];
      if (!IsFinite(local)) continue;
      m_bindLocal[s] = DecomposeTransform(local);
      world[s] = m_bindWorld[s];
    }
  }
  m_frames = m_sampledFrames + (m_bindInserted ? 1 : 0);
  uint64_t moving = 0;
  for (size_t s = 0; s < n; ++s)
    moving += m_channel[s] >= 0 || (m_bindInserted && m_isBone[s] && m_hasBind[s]) ? 1 : 0;
  if (moving * m_frames > kMaxNodeFrames) {
    error = "animation " + Quoted(m_summary.animation) + " moves " + std::to_string(moving) +
            " nodes over " + std::to_string(m_frames) + " frames, more than " +
            std::to_string(kMaxNodeFrames) + " node frames: use --frames or a lower --fps";
    return false;
  }
  if (m_frames > kMaxFrames) {
    error = "animation " + Quoted(m_summary.animation) + " with the bind pose inserted needs " +
            std::to_string(m_frames) + " frames, more than the " + std::to_string(kMaxFrames) +
            " podimport samples: use --frames";
    return false;
  }
  return true;
}

LocalTransform PODSceneImporter::FrameLocal(size_t source, uint32_t frame) const {
  if (m_frames == 0) return m_hierarchy[source].rest;
  if (m_bindInserted) {
    if (frame == 0) return m_bindLocal[source];
    --frame;
  }
  if (m_channel[source] >= 0 && frame < m_samples[source].size()) return m_samples[source][frame];
  return m_hierarchy[source].rest;
}

// The local matrix at sampled frame `sample`: the source's own matrix where it is not animated,
// so that a still hierarchy compares exactly.
aiMatrix4x4 PODSceneImporter::SampledLocalMatrix(size_t source, uint32_t sample) const {
  if (m_channel[source] < 0 || sample >= m_samples[source].size()) {
    const aiMatrix4x4& own = m_hierarchy[source].node->mTransformation;
    return IsFinite(own) ? own : aiMatrix4x4();
  }
  return ComposeTransform(m_samples[source][sample]);
}

int32_t PODSceneImporter::Plan(const PlannedNode& node) {
  const int32_t id = static_cast<int32_t>(m_planned.size());
  m_planned.push_back(node);
  m_order[static_cast<int>(node.kind)].push_back(id);
  return id;
}

void PODSceneImporter::PlanTarget(int32_t owner, const aiVector3D& direction) {
  PlannedNode target;
  target.kind = Kind::kOther;
  target.name = m_planned[owner].name + ".Target";
  target.parentPlanned = owner;
  target.targetOffset = UnitOr(direction, aiVector3D(0, 0, -1));
  const int32_t id = Plan(target);
  m_planned[owner].target = id;
}

void PODSceneImporter::PlanNodes() {
  const size_t n = m_hierarchy.Size();
  m_primary.assign(n, -1);
  for (size_t s = 0; s < n; ++s) {
    const SourceNode& source = m_hierarchy[s];
    const aiNode& node = *source.node;
    const std::string name = NameOf(node.mName);
    uint32_t suffix = 0;
    auto nextName = [&suffix](const std::string& base) {
      const std::string result = suffix == 0 ? base : base + "_" + std::to_string(suffix);
      ++suffix;
      return result;
    };
    bool hasSkinned = false;
    for (unsigned int k = 0; node.mMeshes && k < node.mNumMeshes; ++k) {
      const unsigned int mesh = node.mMeshes[k];
      if (mesh >= m_meshes.size() || !m_meshes[mesh].usable) continue;
      const MeshConversion& c = m_meshes[mesh];
      for (uint32_t p = 0; p < c.partition.pieces.size(); ++p) {
        PlannedNode planned;
        planned.kind = Kind::kMesh;
        planned.mesh = mesh;
        planned.piece = p;
        planned.name = nextName(name.empty() ? NameOf(m_scene.mMeshes[mesh]->mName) : name);
        if (c.skinned) {
          hasSkinned = true;
          Plan(planned);  // a root at the origin, still
          continue;
        }
        planned.source = static_cast<int32_t>(s);
        planned.parentSource = source.parent;
        const int32_t id = Plan(planned);
        if (m_primary[s] < 0) m_primary[s] = id;
      }
    }
    if (m_light[s] >= 0) {
      const aiLight& light = *m_scene.mLights[m_light[s]];
      PlannedNode planned;
      planned.kind = Kind::kLight;
      planned.name = name;
      planned.source = static_cast<int32_t>(s);
      planned.parentSource = source.parent;
      planned.light = m_light[s];
      const int32_t id = Plan(planned);
      if (m_primary[s] < 0) m_primary[s] = id;
      if (light.mType == aiLightSource_DIRECTIONAL || light.mType == aiLightSource_SPOT)
        PlanTarget(id, light.mDirection);
    }
    if (m_camera[s] >= 0) {
      PlannedNode planned;
      planned.kind = Kind::kCamera;
      planned.name = name;
      planned.source = static_cast<int32_t>(s);
      planned.parentSource = source.parent;
      planned.camera = m_camera[s];
      const int32_t id = Plan(planned);
      if (m_primary[s] < 0) m_primary[s] = id;
      PlanTarget(id, m_scene.mCameras[m_camera[s]]->mLookAt);
    }
    // A node that only carries skinned meshes needs no node of its own, unless something hangs
    // from it or it is a bone.
    if (m_primary[s] < 0 && !(hasSkinned && source.childCount == 0 && !m_isBone[s])) {
      PlannedNode planned;
      planned.kind = Kind::kOther;
      planned.name = name;
      planned.source = static_cast<int32_t>(s);
      planned.parentSource = source.parent;
      m_primary[s] = Plan(planned);
    }
  }
  int32_t index = 0;
  for (const std::vector<int32_t>& kind : m_order)
    for (int32_t id : kind) m_planned[id].index = index++;
}

void PODSceneImporter::PlanMaterials() {
  const uint32_t count = m_scene.mMaterials ? m_scene.mNumMaterials : 0;
  m_materialOf.assign(count, -1);
  std::vector<uint8_t> used(count, 0);
  for (int32_t id : m_order[static_cast<int>(Kind::kMesh)]) {
    const PlannedNode& node = m_planned[id];
    const unsigned int material = m_scene.mMeshes[node.mesh]->mMaterialIndex;
    // Korvex makes no material for a marker, and a material nothing converts fails its count.
    if (UsesMaterial(node) && material < count && m_scene.mMaterials[material]) used[material] = 1;
  }
  for (uint32_t i = 0; i < count; ++i) {
    if (!used[i]) continue;
    m_materialOf[i] = static_cast<int32_t>(m_usedMaterials.size());
    m_usedMaterials.push_back(i);
  }
  if (m_usedMaterials.size() < count)
    Note(count - m_usedMaterials.size() == 1
             ? "1 material that no mesh node uses is left out"
             : std::to_string(count - m_usedMaterials.size()) +
                   " materials that no mesh node uses are left out");
  for (int32_t id : m_order[static_cast<int>(Kind::kMesh)]) {
    PlannedNode& node = m_planned[id];
    const unsigned int material = m_scene.mMeshes[node.mesh]->mMaterialIndex;
    if (UsesMaterial(node) && material < count) node.material = m_materialOf[material];
  }
}

bool PODSceneImporter::UsesMaterial(const PlannedNode& node) const {
  return korvex::UsesMaterial(korvex::MeshNodeKind(node.name.c_str(), m_frames != 0,
                                                   SkinnedPiece(node.mesh, node.piece)));
}

bool PODSceneImporter::CheckLightMaps(const CPODScene& scene, std::string& error) const {
  const korvex::SceneRules rules(scene);
  for (uint32_t i : rules.lightMapDefinitions()) {
    const std::string name = scene.pNode[i].pszName;
    if (scene.pNode[i].nIdxMaterial < 0) {
      error = "mesh node " + Quoted(name) + " defines a light map but has no material";
      return false;
    }
    if (rules.earlierDefinition(i) >= 0) {
      error = "two mesh nodes define light map " + Quoted(name);
      return false;
    }
  }
  for (uint32_t i : rules.lightMappedMeshes()) {
    if (rules.lightMapOf(i) >= 0) continue;
    const char* name = scene.pNode[i].pszName;
    error = "mesh node " + Quoted(name) + " uses light map " + Quoted(korvex::LightMapName(name)) +
            ", which no mesh node defines (a light map is defined by a mesh node whose name "
            "is LIGHTMAP and three more characters)";
    return false;
  }
  return true;
}

// Only animated nodes and, when the bind pose is inserted, bound bones change from frame to
// frame; every other node is written with one key without evaluating each frame.
bool PODSceneImporter::CanMove(const PlannedNode& node) const {
  if (m_frames == 0 || node.source < 0) return false;
  const size_t s = static_cast<size_t>(node.source);
  return m_channel[s] >= 0 || (m_bindInserted && m_isBone[s] && m_hasBind[s]);
}

// A piece of a skinned mesh whose vertices follow no bone at all is written without skin: a
// batch of no bones would give Korvex nothing to average its volumes over.
bool PODSceneImporter::SkinnedPiece(uint32_t mesh, uint32_t piece) const {
  const MeshConversion& c = m_meshes[mesh];
  if (!c.skinned) return false;
  for (const BoneBatch& batch : c.partition.pieces[piece].batches)
    if (!batch.bones.empty()) return true;
  return false;
}

bool PODSceneImporter::Build(CPODScene& out, std::string& error) {
  PODSceneBuilder builder;
  builder.SetNumFrames(m_frames);
  builder.SetAmbientColour(m_ambient[0], m_ambient[1], m_ambient[2]);

  std::unordered_map<std::string, int32_t> textureIndex;
  for (uint32_t source : m_usedMaterials) {
    const aiMaterial& material = *m_scene.mMaterials[source];
    bool embedded = false;
    const std::string written = DiffuseTexture(material, embedded);
    const std::string texture = written.empty() ? written : TextureNameOf(written);
    if (embedded) Note("textures embedded in the file are not kept (no file name to refer to)");
    int32_t tex = -1;
    if (!texture.empty()) {
      auto found = textureIndex.find(texture);
      if (found == textureIndex.end())
        found = textureIndex.emplace(texture, builder.AddTexture(texture.c_str())).first;
      tex = found->second;
    }
    aiString nameText;
    material.Get(AI_MATKEY_NAME, nameText);
    std::string name = NameOf(nameText);
    if (name.empty()) name = "material" + std::to_string(source);
    const int index = builder.AddMaterial(name.c_str(), tex);
    SPODMaterial& m = builder.Material(index);
    float opacity = 1.0f, shininess = 0.0f;
    material.Get(AI_MATKEY_OPACITY, opacity);
    material.Get(AI_MATKEY_SHININESS, shininess);
    m.fMatOpacity = FiniteOr(opacity, 1.0f);
    m.fMatShininess = FiniteOr(shininess, 0.0f);
    GetColour(material, AI_MATKEY_COLOR_AMBIENT, m.pfMatAmbient, 0.0f);
    GetColour(material, AI_MATKEY_COLOR_DIFFUSE, m.pfMatDiffuse, 1.0f);
    GetColour(material, AI_MATKEY_COLOR_SPECULAR, m.pfMatSpecular, 0.0f);
  }
  m_summary.materials = static_cast<uint32_t>(m_usedMaterials.size());
  m_summary.textures = static_cast<uint32_t>(textureIndex.size());

  for (int32_t id : m_order[static_cast<int>(Kind::kMesh)]) {
    const PlannedNode& node = m_planned[id];
    MeshConversion& c = m_meshes[node.mesh];
    if (c.podMesh[node.piece] >= 0) continue;
    c.podMesh[node.piece] = static_cast<int32_t>(m_summary.meshes);
    BuildMeshPiece(builder, node.mesh, node.piece);
    const BoneBatch* batches = c.partition.pieces[node.piece].batches.data();
    const size_t batchCount = c.partition.pieces[node.piece].batches.size();
    if (batchCount > 1) {
      size_t first = batches[0].bones.size();
      Note("mesh node " + Quoted(node.name) + " needs " + std::to_string(batchCount) +
           " bone batches of at most " + std::to_string(m_options.maxBones) +
           " bones; Korvex bakes only the first (" + std::to_string(first) +
           " bones): raise --max-bones (at most 255) or split the mesh");
    }
  }

  std::vector<uint8_t> boneWritten(m_hierarchy.Size(), 0);
  for (const std::vector<int32_t>& kind : m_order) {
    for (int32_t id : kind) {
      const PlannedNode& node = m_planned[id];
      int32_t parent = -1;
      if (node.parentPlanned >= 0)
        parent = m_planned[node.parentPlanned].index;
      else if (node.parentSource >= 0 && m_primary[node.parentSource] >= 0)
        parent = m_planned[m_primary[node.parentSource]].index;
      const int32_t target = node.target >= 0 ? m_planned[node.target].index : -1;
      int index = -1;
      switch (node.kind) {
        case Kind::kMesh: {
          const MeshConversion& c = m_meshes[node.mesh];
          index =
              builder.AddMeshNode(node.name.c_str(), c.podMesh[node.piece], node.material, parent);
          if (SkinnedPiece(node.mesh, node.piece)) {
            ++m_summary.skinnedMeshNodes;
            for (const BoneBatch& batch : c.partition.pieces[node.piece].batches)
              for (uint32_t bone : batch.bones) boneWritten[c.boneSource[bone]] = 1;
          }
          ++m_summary.meshNodes;
          break;
        }
        case Kind::kLight: {
          const aiLight& light = *m_scene.mLights[node.light];
          uint32_t type = kPointLight;
          if (light.mType == aiLightSource_DIRECTIONAL) type = kDirectionalLight;
          if (light.mType == aiLightSource_SPOT) type = kSpotLight;
          index = builder.AddLightNode(node.name.c_str(), FiniteOr(light.mColorDiffuse.r, 0.0f),
                                       FiniteOr(light.mColorDiffuse.g, 0.0f),
                                       FiniteOr(light.mColorDiffuse.b, 0.0f), type, target, parent);
          ++m_summary.lightNodes;
          break;
        }
        case Kind::kCamera: {
          const aiCamera& camera = *m_scene.mCameras[node.camera];
          index = builder.AddCameraNode(node.name.c_str(), FiniteOr(camera.mHorizontalFOV, 0.0f),
                                        FiniteOr(camera.mClipPlaneNear, 0.0f),
                                        FiniteOr(camera.mClipPlaneFar, 0.0f), target, parent);
          ++m_summary.cameraNodes;
          break;
        }
        case Kind::kOther:
          index = builder.AddNode(node.name.c_str(), parent);
          ++m_summary.otherNodes;
          break;
      }
      BuildChannels(builder, node, index);
    }
  }
  for (uint8_t written : boneWritten) m_summary.bones += written;
  if (m_summary.skinnedMeshNodes > 0 && m_frames == 0)
    Note("skinned meshes are written in their bind pose: the scene has no animation frames");
  m_summary.frames = m_frames;
  m_summary.sampledFrames = m_sampledFrames;
  m_summary.bindPoseInserted = m_bindInserted;
  m_summary.fps = m_options.fps;

  if (!builder.Build(out)) {
    error = "out of memory";
    return false;
  }
  return true;
}

void PODSceneImporter::BuildMeshPiece(PODSceneBuilder& builder, uint32_t meshIndex,
                                      uint32_t pieceIndex) {
  const aiMesh& mesh = *m_scene.mMeshes[meshIndex];
  const MeshConversion& c = m_meshes[meshIndex];
  const MeshPiece& piece = c.partition.pieces[pieceIndex];
  const size_t count = piece.sourceVertex.size();
  const int podMesh = builder.AddMesh(static_cast<uint32_t>(count));
  ++m_summary.meshes;
  m_summary.vertices += count;
  m_summary.triangles += piece.indices.size() / 3;

  std::vector<float> values(count * 3, 0.0f);
  for (size_t v = 0; v < count; ++v) {
    const aiVector3D& p = mesh.mVertices[piece.sourceVertex[v]];
    values[3 * v] = p.x;
    values[3 * v + 1] = p.y;
    values[3 * v + 2] = p.z;
  }
  builder.SetStream(podMesh, PODStream::Vertex, EPODDataFloat, 3, values.data(),
                    values.size() * sizeof(float));
  std::fill(values.begin(), values.end(), 0.0f);
  for (size_t v = 0; mesh.mNormals && v < count; ++v) {
    const aiVector3D& p = mesh.mNormals[piece.sourceVertex[v]];
    values[3 * v] = p.x;
    values[3 * v + 1] = p.y;
    values[3 * v + 2] = p.z;
  }
  builder.SetStream(podMesh, PODStream::Normals, EPODDataFloat, 3, values.data(),
                    values.size() * sizeof(float));
  unsigned int sets = 0;
  for (unsigned int k = 0; k < AI_MAX_NUMBER_OF_TEXTURECOORDS && sets < 2; ++k) {
    const aiVector3D* uv = mesh.mTextureCoords[k];
    if (uv == nullptr) continue;
    values.resize(count * 2);
    for (size_t v = 0; v < count; ++v) {
      values[2 * v] = uv[piece.sourceVertex[v]].x;
      values[2 * v + 1] = uv[piece.sourceVertex[v]].y;
    }
    builder.AddUVW(podMesh, EPODDataFloat, 2, values.data(), count * 2 * sizeof(float));
    ++sets;
  }
  builder.SetFaces(podMesh, piece.indices);
  if (!SkinnedPiece(meshIndex, pieceIndex)) return;

  size_t perVertex = 1;
  for (const VertexInfluences& in : piece.influences)
    perVertex = std::max<size_t>(perVertex, in.count);
  std::vector<uint8_t> slots(count * perVertex, 0);
  std::vector<float> weights(count * perVertex, 0.0f);
  for (size_t v = 0; v < count; ++v) {
    const VertexInfluences& in = piece.influences[v];
    for (uint8_t i = 0; i < in.count; ++i) {
      slots[v * perVertex + i] = static_cast<uint8_t>(in.item[i].bone);
      weights[v * perVertex + i] = in.item[i].weight;
    }
  }
  builder.SetStream(podMesh, PODStream::BoneIdx, EPODDataUInt8, static_cast<uint32_t>(perVertex),
                    slots.data(), slots.size());
  builder.SetStream(podMesh, PODStream::BoneWeight, EPODDataFloat, static_cast<uint32_t>(perVertex),
                    weights.data(), weights.size() * sizeof(float));
  std::vector<std::vector<int32_t>> bones;
  std::vector<int32_t> offsets;
  int32_t boneMax = 0;
  for (const BoneBatch& batch : piece.batches) {
    std::vector<int32_t> nodes;
    for (uint32_t bone : batch.bones)
      nodes.push_back(m_planned[m_primary[c.boneSource[bone]]].index);
    boneMax = std::max<int32_t>(boneMax, static_cast<int32_t>(nodes.size()));
    bones.push_back(std::move(nodes));
    offsets.push_back(static_cast<int32_t>(batch.firstTriangle));
  }
  builder.SetBoneBatches(podMesh, boneMax, bones, offsets);
}

void PODSceneImporter::BuildChannels(PODSceneBuilder& builder, const PlannedNode& node, int index) {
  const size_t frames = CanMove(node) ? m_frames : 1;
  std::vector<float> position(frames * 3), rotation(frames * 4), scale(frames * 7, 0.0f);
  for (size_t f = 0; f < frames; ++f) {
    LocalTransform t;
    if (node.source >= 0)
      t = FrameLocal(static_cast<size_t>(node.source), static_cast<uint32_t>(f));
    else if (node.parentPlanned >= 0)
      t.position = node.targetOffset;
    const PODQUATERNIONf q = PODRotationKey(t.rotation);
    const float p[3] = {t.position.x, t.position.y, t.position.z};
    const float r[4] = {q.x, q.y, q.z, q.w};
    const float s[3] = {t.scale.x, t.scale.y, t.scale.z};
    std::copy(p, p + 3, &position[3 * f]);
    std::copy(r, r + 4, &rotation[4 * f]);
    std::copy(s, s + 3, &scale[7 * f]);
  }
  auto channel = [frames](std::vector<float>& keys, size_t floats) {
    const bool still = frames == 1 || AllKeysEqual(keys, floats);
    if (still) keys.resize(floats);
    return !still;
  };
  const bool movesP = channel(position, 3);
  const bool movesR = channel(rotation, 4);
  const bool movesS = channel(scale, 7);
  builder.SetAnimPosition(index, position, movesP);
  builder.SetAnimRotation(index, rotation, movesR);
  builder.SetAnimScale(index, scale, movesS);
}

}  // namespace korvex::podimport
