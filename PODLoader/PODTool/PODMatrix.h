#pragma once
// Single-precision matrix, vector and quaternion operations of the POD side.
// Points are row vectors multiplied on the left (p' = p * M); translation sits in elements
// 12, 13, 14. Every operation writes its output through the first argument.

struct PODMATRIXf {
  float f[16];
};

struct PODVECTOR3f {
  float x, y, z;
};

struct PODVECTOR4f {
  float x, y, z, w;
};

struct PODQUATERNIONf {
  float x, y, z, w;
};

void PODMatrixIdentityF(PODMATRIXf& out);
// out = A * B (A applied first); out may alias A or B.
void PODMatrixMultiplyF(PODMATRIXf& out, const PODMATRIXf& A, const PODMATRIXf& B);
void PODMatrixTranslationF(PODMATRIXf& out, float x, float y, float z);
void PODMatrixScalingF(PODMATRIXf& out, float x, float y, float z);
// Affine inverse; a singular or nearly singular input leaves out untouched. out may alias in.
void PODMatrixInverseF(PODMATRIXf& out, const PODMATRIXf& in);
void PODMatrixVec3LerpF(PODVECTOR3f& out, const PODVECTOR3f& a, const PODVECTOR3f& b, float t);
void PODMatrixQuaternionNormalizeF(PODQUATERNIONf& q);
void PODMatrixQuaternionSlerpF(PODQUATERNIONf& out, const PODQUATERNIONf& q1,
                               const PODQUATERNIONf& q2, float t);
// Rotation matrix of q, taken as it is (not normalised).
void PODMatrixRotationQuaternionF(PODMATRIXf& out, const PODQUATERNIONf& q);
// out = (v, 1) * M, first three components: a full point transform including translation.
void PODMatrixVec3TransposeMultipleF(PODVECTOR3f& out, const PODVECTOR3f& v, const PODMATRIXf& M);
