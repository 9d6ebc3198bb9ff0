#include "PODReadReport.h"

#include <utility>

namespace {

struct TagField {
  uint32_t tag;
  const char* field;
};

// Every tag of the format with the field it fills (the containers with the record they hold).
constexpr TagField kFields[] = {
    {1000, "format version"}, {1001, "scene"}, {1002, "export options"},
    {2000, "pfColourBackground"}, {2001, "pfColourAmbient"}, {2002, "nNumCamera"},
    {2003, "nNumLight"}, {2004, "nNumMesh"}, {2005, "nNumNode"}, {2006, "nNumMeshNode"},
    {2007, "nNumTexture"}, {2008, "nNumMaterial"}, {2009, "nNumFrame"}, {2010, "camera"},
    {2011, "light"}, {2012, "mesh"}, {2013, "node"}, {2014, "texture"}, {2015, "material"},
    {2016, "nFlags"},
    {3000, "pszName"}, {3001, "nIdxTexDiffuse"}, {3002, "fMatOpacity"}, {3003, "pfMatAmbient"},
    {3004, "pfMatDiffuse"}, {3005, "pfMatSpecular"}, {3006, "fMatShininess"},
    {3007, "pszEffectFile"}, {3008, "pszEffectName"},
    {4000, "pszName"},
    {5000, "nIdx"}, {5001, "pszName"}, {5002, "nIdxMaterial"}, {5003, "nIdxParent"},
    {5004, "pfPosition"}, {5005, "pfRotation"}, {5006, "pfScale"}, {5007, "pfAnimPosition"},
    {5008, "pfAnimRotation"}, {5009, "pfAnimScale"}, {5011, "pfAnimMatrix"},
    {5012, "nAnimFlags"},
    {6000, "nNumVertex"}, {6001, "nNumFaces"}, {6002, "nNumUVW"}, {6003, "sFaces"},
    {6004, "pnStripLength"}, {6005, "nNumStrips"}, {6006, "sVertex"}, {6007, "sNormals"},
    {6008, "sTangents"}, {6009, "sBinormals"}, {6010, "psUVW"}, {6011, "sVtxColours"},
    {6012, "sBoneIdx"}, {6013, "sBoneWeight"}, {6014, "pInterleaved"}, {6015, "pnBatches"},
    {6016, "pnBatchBoneCnt"}, {6017, "pnBatchOffset"}, {6018, "nBatchBoneMax"},
    {6019, "nBatchCnt"},
    {7000, "nIdxTarget"}, {7001, "pfColour"}, {7002, "eType"},
    {8000, "nIdxTarget"}, {8001, "fFOV"}, {8002, "fFar"}, {8003, "fNear"}, {8004, "pfAnimFOV"},
    {9000, "eType"}, {9001, "n"}, {9002, "nStride"}, {9003, "pData"},
};

}  // namespace

const char* PODTagField(uint32_t tag) {
  for (const TagField& f : kFields) {
    if (f.tag == tag) return f.field;
  }
  return nullptr;
}

void PODReadReport::AddIrregularity(std::string text) {
  if (irregularities.size() < kMaxKept) irregularities.push_back(std::move(text));
  ++irregularityCount;
}

std::string PODReadReport::DescribeFailure() const {
  const std::string at = " at byte " + std::to_string(failureOffset);
  const std::string detail = failureDetail.empty() ? "" : " (" + failureDetail + ")";
  switch (failure) {
    case EPODReadFailure::None:
      return std::string();
    case EPODReadFailure::CannotOpen:
      return "the file cannot be opened and read";
    case EPODReadFailure::Truncated:
      return "the data ends inside " + failureWhere + at + detail;
    case EPODReadFailure::BadVersion:
      return "the version block" + at + " is not \"AB.POD.2.0\"" + detail;
    case EPODReadFailure::NoVersion:
      return "the file has no version block";
    case EPODReadFailure::NoScene:
      return "the file holds no scene";
    case EPODReadFailure::NoExportOptions:
      return "no export-options block ahead of the scene";
    case EPODReadFailure::OutOfMemory:
      return "out of memory reading " + failureWhere + at + detail;
    case EPODReadFailure::TooManyRecords:
      return failureWhere + at + " declares more records than the rest of the file can hold" +
             detail;
    case EPODReadFailure::RecordWithoutSlot:
      return failureWhere + at + " has no place: more such records than declared, or one ahead" +
             " of its count";
    case EPODReadFailure::CountMismatch:
      return "the scene's record counts disagree with the records it holds" + detail + at;
    case EPODReadFailure::StreamCountMismatch:
      return failureWhere + " holds a different number of texture-coordinate streams than it" +
             " declares" + detail + at;
  }
  return std::string();
}
