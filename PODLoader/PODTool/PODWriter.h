#pragma once
// Writing POD files: the building blocks WritePOD (declared with the model) assembles a file
// from. Every block is written through WriteFileSafe, numbers in little-endian order on any
// host. All return false at the first short write and print nothing.

#include <cstdint>
#include <cstdio>
#include <string>

#include "pod/PODMeshWeld.h"
#include "pod/PODModel.h"

// One write call of the whole size; a zero size succeeds without writing.
bool WriteFileSafe(FILE* pFile, const void* lpBuffer, unsigned int nSize);

// A marker: the tag (with bit 31 set for an end marker), then the length.
bool WriteMarker(FILE* pFile, unsigned int nName, bool bEnd, unsigned int nLen);

// A data block of raw bytes: start marker, the bytes, end marker. A null pointer writes nothing
// and succeeds.
bool WriteData(FILE* pFile, unsigned int nName, const void* pData, unsigned int nLen);
// The same for an array of 32-bit words (turned to little-endian on a big-endian host).
bool WriteDataWords(FILE* pFile, unsigned int nName, const void* pData, unsigned int nLen);

// Blocks of one value: 4 bytes, or 12 for three floats. The interleaved offset of a stream is
// written through the unsigned form.
bool WriteData(FILE* pFile, unsigned int nName, int n);
bool WriteData(FILE* pFile, unsigned int nName, unsigned int n);
bool WriteData(FILE* pFile, unsigned int nName, float f);
bool WriteData(FILE* pFile, unsigned int nName, const float (&pf)[3]);
bool WriteData(FILE* pFile, unsigned int nName, EPODDataType e);
bool WriteData(FILE* pFile, unsigned int nName, EPODLight e);

// A stream container: 9000 to 9002, then 9003 with nStride * nCount bytes of data when
// bValidData, or the 4-byte interleaved offset when not. False, before anything is written, when
// the data is asked for beyond what the stream holds (nDataSize), or when an interleaved stream
// holds an array of its own instead of an offset.
bool WriteCPODData(FILE* pFile, unsigned int nName, const CPODData& data, unsigned int nCount,
                   bool bValidData);

// The first array that writing the scene would read beyond what it holds, named with its record
// ("mesh 2: pnBatches holds fewer than its 12 elements"); empty when WritePOD reads only what
// every array holds. Names and a failing file are not its concern. With a weld plan, as the save
// with that plan writes the scene: a weld that no longer fits its mesh is a shortfall too.
std::string PODWriteShortfall(const SPODScene& scene, const PODWeldPlan* plan = nullptr);
