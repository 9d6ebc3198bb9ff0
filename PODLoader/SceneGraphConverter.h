#pragma once
// Turns one loaded CPODScene into the records of one QelSceneGraphModel: walks the POD nodes
// (mesh nodes, then lights, then cameras), makes one node header and one record per converted
// node of the kind the scene's rules (SceneRules) give it, links light-mapped meshes to their
// light-map materials and checks the header count at the end.
//
// Records are calloc'd here and handed to the model, which owns them and the arrays their
// SSGNodeData descriptors point at (each a separate malloc'd block). A temporary record whose
// contents are copied into a bigger record is released with free alone: its arrays move with
// the copy.
//
// Inconsistencies the format defines as fatal are assertions of source
// "PODLoader/SceneGraphConverter"; everything else a file could get wrong is refused up front by
// SceneValidation, so these functions index the scene without checks of their own.

#include <cstdint>
#include <cstdlib>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "convert/MeshVolumesAhead.h"
#include "pod/Diagnostics.h"
#include "qsn/SceneGraphRecords.h"

class CPODScene;
class QelSceneGraphModel;
class SkeletonNodeConverter;
class AnimationNodeConverter;
namespace korvex {
class SceneRules;
}

class SceneGraphConverter {
 public:
  explicit SceneGraphConverter(QelSceneGraphModel* model);
  ~SceneGraphConverter();
  SceneGraphConverter(const SceneGraphConverter&) = delete;
  SceneGraphConverter& operator=(const SceneGraphConverter&) = delete;

  // The whole conversion; fileName (no directory) becomes the model's PODFilename. Always true.
  bool convertFromPOD(CPODScene* scene, const char* fileName);

  // What each node of the scene is, its light maps and the header count, worked out once per
  // scene and asked by the classification, the linking and the file header.
  const korvex::SceneRules& rules();

  // With `borrow` set, records take the scene's vertex, normal, face, texture-coordinate (one
  // set) and bone arrays as they are instead of copies; the scene must then outlive the model.
  // Off by default. The bytes written are the same either way.
  void setBorrowStreams(bool borrow);

  // Last node named `name`: its nIdx and its position; both -1 when none (or no scene yet).
  void getNodeListIDs(std::string name, int& objectIndex, int& nodeIndex);

  // Classification of one POD node; each makes the node's header and record.
  void buildMeshType(int nodeIndex);
  void buildLightType(int nodeIndex);
  void buildCameraType(int nodeIndex);
  // Entry 1 of each light-mapped mesh's materialIndex := its light map's material record.
  void buildLightMapMesh();

  SSGFileHeader* createFileHeader(const char* fileName);
  // Appends a header for the record about to join `kind`'s sequence (index = its position).
  void createNodeHeader(ESGName kind, int nodeIndex);

  // Thin wrappers, one per record kind.
  SSGQelMeshNodeData* createMesh(int nodeIndex);
  SSGQelSkeletalMeshNodeData* createSkeletalMesh(int nodeIndex);
  SSGQelAnimationMeshNodeData* createAnimationMesh(int nodeIndex);
  SSGQelNodeData* createNode(int nodeIndex);
  SSGQelCameraNodeData* createCamera(int nodeIndex);
  SSGQelAnimationCameraNodeData* createAnimationCamera(int nodeIndex);
  SSGQelLightNodeData* createLight(int nodeIndex);
  SSGQelMarkerNodeData* createMarker(int nodeIndex);
  SSGQelCollisionBoxNodeData* createBoxCollider(int nodeIndex);
  SSGQelCollisionSphereNodeData* createSphereCollider(int nodeIndex);
  SSGQelSkyBoxNodeData* createSkyBox(int nodeIndex);
  SSGQelBillboardNodeData* createBillboard(int nodeIndex);

  // Record builders (SceneGraphConverterNodes.cpp). Each returns a new calloc'd record; the
  // fill* steps fill the part a derived record shares, in place.
  SSGQelNodeData* createNodeData(int nodeIndex);
  void fillNodeData(SSGQelNodeData& record, int nodeIndex);
  // An animated mesh's volumes are kept in object space: its world volumes are only checked
  // (the same assertions and Error3 lines), never kept.
  enum class MeshVolumes { World, ObjectSpace };
  void fillMeshNodeData(SSGQelMeshNodeData& record, int nodeIndex,
                        MeshVolumes volumes = MeshVolumes::World);
  void fillCameraNodeData(SSGQelCameraNodeData& record, int nodeIndex);
  // A new record of a kind that is a mesh record and more, its mesh part filled.
  template <class R>
  R* newMeshRecord(int nodeIndex, MeshVolumes volumes = MeshVolumes::World) {
    R* record = newRecord<R>();
    fillMeshNodeData(*record, nodeIndex, volumes);
    return record;
  }
  // The volumes of every mesh record to come, for m_volumesAhead.
  std::vector<MeshVolumesAhead::Job> meshVolumeJobs();
  // transform := the node's own frame-0 matrix (parents are not applied).
  void setNodeTransform(SSGQelNode* record, SPODNode* node);
  SSGQelMeshNodeData* createMeshNodeData(int nodeIndex);
  SSGQelCollisionSphereNodeData* createSphereColliderNodeData(int nodeIndex);
  SSGQelCollisionBoxNodeData* createBoxColliderNodeData(int nodeIndex);
  SSGQelSkyBoxNodeData* createSkyBoxNodeData(int nodeIndex);
  SSGQelBillboardNodeData* createBillboardNodeData(int nodeIndex);
  SSGQelCameraNodeData* createCameraNodeData(int nodeIndex);
  SSGQelLightNodeData* createLightNodeData(int nodeIndex);
  SSGQelMarkerNodeData* createMarkerNodeData(int nodeIndex);
  // Position of the node's material record in the model's material sequence, made (with its
  // header) on first use. The node's nIdxMaterial must be 0 or greater.
  int32_t createMaterialData(int nodeIndex);
  // The first six members of the material record (up to shininess), in a new block.
  SSGQelMaterialData* createMaterialNode(int nodeIndex);

  // Animated kinds (SceneGraphConverterAnimated.cpp).
  SSGQelSkeletalMeshNodeData* createSkeletalMeshNodeData(int nodeIndex);
  SSGQelAnimationMeshNodeData* createAnimationMeshNodeData(int nodeIndex);
  SSGQelAnimationCameraNodeData* createAnimationCameraNodeData(int nodeIndex);

  // A zero-filled record or header the model can own.
  template <class T>
  static T* newRecord() {
    return korvex::AllocateZeroed<T>(1, "a scene-graph record");
  }

  QelSceneGraphModel* mModel;  // not owned
  CPODScene* mScene;           // not owned; set by convertFromPOD
  std::unique_ptr<SkeletonNodeConverter> mSkeletonConverter;
  std::unique_ptr<AnimationNodeConverter> mAnimationConverter;
  // Light-map name (11 characters) -> its material record's position in the material sequence.
  std::map<std::string, int32_t> m_LightMap;
  // Records of light-mapped meshes in creation order (owned by the model).
  std::list<SSGQelMeshNodeData*> m_LightMapMesh;
  bool m_borrowStreams = false;
  // Borrowing, a mesh's two texture-coordinate sets end to end, made once for all its nodes (kept
  // by the model), by mesh index.
  std::map<int32_t, uint8_t*> m_joinedUVW;
  // POD material index -> the first material record made for it, over the model's first
  // m_materialsIndexed material records.
  std::unordered_map<int32_t, int32_t> m_materialRecord;
  size_t m_materialsIndexed = 0;
  std::unique_ptr<korvex::SceneRules> m_rules;
  // The mesh records' volumes, made on a second core during convertFromPOD.
  std::unique_ptr<MeshVolumesAhead> m_volumesAhead;
  const CPODScene* m_rulesScene = nullptr;  // the scene m_rules was made for
};
