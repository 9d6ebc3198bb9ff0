#pragma once
// Block tags of the POD file format, shared by the reader and the writer. A block starts with
// an 8-byte marker (tag, payload length) and ends with a marker whose tag has End set.

namespace PODTag {

constexpr unsigned int End = 0x80000000u;

constexpr char kFormatVersion[] = "AB.POD.2.0";
constexpr unsigned int kFormatVersionLength = sizeof kFormatVersion;  // with its zero

// Top level.
constexpr unsigned int FormatVersion = 1000;
constexpr unsigned int Scene = 1001;
constexpr unsigned int ExportOptions = 1002;

// Scene.
constexpr unsigned int SceneClearCol = 2000;
constexpr unsigned int SceneAmbientCol = 2001;
constexpr unsigned int SceneNumCamera = 2002;
constexpr unsigned int SceneNumLight = 2003;
constexpr unsigned int SceneNumMesh = 2004;
constexpr unsigned int SceneNumNode = 2005;
constexpr unsigned int SceneNumMeshNode = 2006;
constexpr unsigned int SceneNumTexture = 2007;
constexpr unsigned int SceneNumMaterial = 2008;
constexpr unsigned int SceneNumFrame = 2009;
constexpr unsigned int SceneCamera = 2010;
constexpr unsigned int SceneLight = 2011;
constexpr unsigned int SceneMesh = 2012;
constexpr unsigned int SceneNode = 2013;
constexpr unsigned int SceneTexture = 2014;
constexpr unsigned int SceneMaterial = 2015;
constexpr unsigned int SceneFlags = 2016;

// Material.
constexpr unsigned int MatName = 3000;
constexpr unsigned int MatIdxTexDiffuse = 3001;
constexpr unsigned int MatOpacity = 3002;
constexpr unsigned int MatAmbient = 3003;
constexpr unsigned int MatDiffuse = 3004;
constexpr unsigned int MatSpecular = 3005;
constexpr unsigned int MatShininess = 3006;
constexpr unsigned int MatEffectFile = 3007;
constexpr unsigned int MatEffectName = 3008;

// Texture.
constexpr unsigned int TexName = 4000;

// Node. 5004 to 5006 occur only in files of the older node layout; 5010 is skipped.
constexpr unsigned int NodeIdx = 5000;
constexpr unsigned int NodeName = 5001;
constexpr unsigned int NodeIdxMat = 5002;
constexpr unsigned int NodeIdxParent = 5003;
constexpr unsigned int NodePos = 5004;
constexpr unsigned int NodeRot = 5005;
constexpr unsigned int NodeScale = 5006;
constexpr unsigned int NodeAnimPos = 5007;
constexpr unsigned int NodeAnimRot = 5008;
constexpr unsigned int NodeAnimScale = 5009;
constexpr unsigned int NodeAnimMatrix = 5011;
constexpr unsigned int NodeAnimFlags = 5012;

// Mesh.
constexpr unsigned int MeshNumVtx = 6000;
constexpr unsigned int MeshNumFaces = 6001;
constexpr unsigned int MeshNumUVW = 6002;
constexpr unsigned int MeshFaces = 6003;
constexpr unsigned int MeshStripLength = 6004;
constexpr unsigned int MeshNumStrips = 6005;
constexpr unsigned int MeshVtx = 6006;
constexpr unsigned int MeshNor = 6007;
constexpr unsigned int MeshTan = 6008;
constexpr unsigned int MeshBin = 6009;
constexpr unsigned int MeshUVW = 6010;
constexpr unsigned int MeshVtxCol = 6011;
constexpr unsigned int MeshBoneIdx = 6012;
constexpr unsigned int MeshBoneWeight = 6013;
constexpr unsigned int MeshInterleaved = 6014;
constexpr unsigned int MeshBoneBatches = 6015;
constexpr unsigned int MeshBoneBatchBoneCnts = 6016;
constexpr unsigned int MeshBoneBatchOffsets = 6017;
constexpr unsigned int MeshBoneBatchBoneMax = 6018;
constexpr unsigned int MeshBoneBatchCnt = 6019;

// Light.
constexpr unsigned int LightIdxTgt = 7000;
constexpr unsigned int LightColour = 7001;
constexpr unsigned int LightType = 7002;

// Camera.
constexpr unsigned int CamIdxTgt = 8000;
constexpr unsigned int CamFOV = 8001;
constexpr unsigned int CamFar = 8002;
constexpr unsigned int CamNear = 8003;
constexpr unsigned int CamAnimFOV = 8004;

// Stream (inside a mesh's stream containers).
constexpr unsigned int DataType = 9000;
constexpr unsigned int DataN = 9001;
constexpr unsigned int DataStride = 9002;
constexpr unsigned int DataData = 9003;

}  // namespace PODTag
