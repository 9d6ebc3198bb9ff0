#pragma once
// Loading POD files: one parse routine per record kind, each walking its record's table
// (PODRecordLayout.h) over the blocks of its container. Every routine returns false on any
// problem and prints nothing; whatever a file holds, nothing is read or written outside an
// allocation. A source given a report also says why a read stopped and which blocks were
// irregular.

#include <cstddef>

#include "pod/PODModel.h"
#include "pod/PODReadReport.h"
#include "pod/PODSource.h"

// The parsers. pExpOpt non-null selects export-options mode: the scene is not read and up to
// count bytes of the options text are copied.
bool Read(SPODScene* pScene, CSource& src, char* pExpOpt, unsigned long count);
bool ReadScene(SPODScene& s, CSource& src);
bool ReadCamera(SPODCamera& s, CSource& src);
bool ReadLight(SPODLight& s, CSource& src);
bool ReadMesh(SPODMesh& s, CSource& src);
bool ReadNode(SPODNode& s, CSource& src);
bool ReadTexture(SPODTexture& s, CSource& src);
bool ReadMaterial(SPODMaterial& s, CSource& src);
bool ReadCPODData(CPODData& s, CSource& src, unsigned int nSpec, bool bValidData);

// What ReadFromFile does once the file's bytes are in memory: the same steps on bytes the
// caller keeps (for tools and fuzzing).
bool PODReadFromBytes(CPODScene& scene, const void* pData, size_t nSize, char* pExpOpt,
                      unsigned long count, PODReadReport* report = nullptr);
