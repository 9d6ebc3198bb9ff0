#include "qsn/SceneGraphLayout.h"

namespace korvex {

// The documented fixed sizes must be exactly what the descriptions serialise.
static_assert(SGDescribedFixedSize<SGFileHeaderLayout>() == 268, "file header");
static_assert(SGDescribedFixedSize<SGNodeHeaderLayout>() == 144, "node header");
static_assert(SGDescribedFixedSize<SGLayout<ESGNode>>() == 80, "node");
static_assert(SGDescribedFixedSize<SGLayout<ESGMarkerNode>>() == 80, "marker");
static_assert(SGDescribedFixedSize<SGLayout<ESGLightNode>>() == 100, "light");
static_assert(SGDescribedFixedSize<SGLayout<ESGCameraNode>>() == 108, "camera");
static_assert(SGDescribedFixedSize<SGLayout<ESGMaterial>>() == 304, "material");
static_assert(SGDescribedFixedSize<SGLayout<ESGMeshNode>>() == 492, "mesh");
static_assert(SGDescribedFixedSize<SGLayout<ESGCollisionSphereNode>>() == 492, "collision sphere");
static_assert(SGDescribedFixedSize<SGLayout<ESGBillboardNode>>() == 492, "billboard");
static_assert(SGDescribedFixedSize<SGLayout<ESGSkyBoxNode>>() == 492, "sky box");
static_assert(SGDescribedFixedSize<SGLayout<ESGCollisionBoxNode>>() == 544, "collision box");
static_assert(SGDescribedFixedSize<SGLayout<ESGAnimationMeshNode>>() == 516, "animated mesh");
static_assert(SGDescribedFixedSize<SGLayout<ESGSkeletalMeshNode>>() == 660, "skeletal mesh");
static_assert(SGDescribedFixedSize<SGLayout<ESGAnimationCameraNode>>() == 132, "animated camera");

template <ESGName K>
constexpr bool FixedSizeMatchesDescription() {
  return SGLayout<K>::kFixedSize == SGDescribedFixedSize<SGLayout<K>>();
}
static_assert(FixedSizeMatchesDescription<ESGNode>() && FixedSizeMatchesDescription<ESGMeshNode>() &&
                  FixedSizeMatchesDescription<ESGLightNode>() &&
                  FixedSizeMatchesDescription<ESGCameraNode>() &&
                  FixedSizeMatchesDescription<ESGMaterial>() &&
                  FixedSizeMatchesDescription<ESGCollisionBoxNode>() &&
                  FixedSizeMatchesDescription<ESGCollisionSphereNode>() &&
                  FixedSizeMatchesDescription<ESGBillboardNode>() &&
                  FixedSizeMatchesDescription<ESGSkyBoxNode>() &&
                  FixedSizeMatchesDescription<ESGMarkerNode>() &&
                  FixedSizeMatchesDescription<ESGSkeletalMeshNode>() &&
                  FixedSizeMatchesDescription<ESGAnimationMeshNode>() &&
                  FixedSizeMatchesDescription<ESGAnimationCameraNode>(),
              "a kind's fixed size disagrees with its field list");

// Array elements: the in-memory element types hold exactly the bytes of the file element.
static_assert(sizeof(QelSphere) == kSGSphereElementSize, "sphere element");
static_assert(sizeof(QelAABB) == kSGAABBElementSize, "box element");

static_assert(SGDescribedArrayCount<SGLayout<ESGMeshNode>>() == 4, "mesh arrays");
static_assert(SGDescribedArrayCount<SGLayout<ESGSkeletalMeshNode>>() == 13, "skeletal arrays");
static_assert(SGDescribedArrayCount<SGLayout<ESGAnimationMeshNode>>() == 5, "animated mesh arrays");
static_assert(SGDescribedArrayCount<SGLayout<ESGAnimationCameraNode>>() == 1, "camera matrices");

uint32_t SGKindFixedSize(uint32_t kind) {
  uint32_t size = 0;
  SGDispatchKind(kind, [&](auto layout) { size = decltype(layout)::kFixedSize; });
  return size;
}

const char* SGKindName(uint32_t kind) {
  switch (kind) {
    case ESGNode: return "node";
    case ESGMeshNode: return "mesh";
    case ESGLightNode: return "light";
    case ESGCameraNode: return "camera";
    case ESGMaterial: return "material";
    case ESGCollisionBoxNode: return "collision box";
    case ESGCollisionSphereNode: return "collision sphere";
    case ESGBillboardNode: return "billboard";
    case ESGSkyBoxNode: return "sky box";
    case ESGMarkerNode: return "marker";
    case ESGSkeletalMeshNode: return "skeletal mesh";
    case ESGAnimationMeshNode: return "animated mesh";
    case ESGAnimationCameraNode: return "animated camera";
    default: return "unknown";
  }
}

}  // namespace korvex
