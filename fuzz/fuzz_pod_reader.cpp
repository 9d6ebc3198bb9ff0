// Fuzzes the POD reader in both of its modes and the writer on every scene that loads.
//
// Properties checked (abort on violation):
// - the reader allocates at most a small multiple of the input size;
// - a read fails exactly when its report names a cause, in both modes;
// - a loaded scene that WritePOD accepts is written, and the written file reads back;
// - writing what was read back gives the same bytes, except where the first file held empty data
//   blocks of arrays that were present but empty: the reader restores those as absent, so the
//   bytes settle after another round or two instead (and must then stay put); and except where
//   the first scene was left in fixed point (a stray scene end marker ends its read before the
//   conversion): the file written from it is converted when read back.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "pod/PODModel.h"
#include "pod/PODReadReport.h"
#include "pod/PODReader.h"
#include "support/PODTestFiles.h"

namespace {

// What the reader may allocate for an input of n bytes: one record per 16 bytes at the size of
// the largest record (about 29 times the input), 4 times each array of 32-bit words, texture
// coordinate descriptors, the file itself; and the records a read may allocate beyond what its
// file can hold.
constexpr size_t kAllocPerByte = 48;
constexpr size_t kAllocSlack = CSource::kUnbackedAllowance + 4096;

void Check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "fuzz_pod_reader: %s\n", what);
    abort();
  }
}

bool Write(const SPODScene& s, const char* options, std::vector<uint8_t>& out) {
  char* buf = nullptr;
  size_t len = 0;
  FILE* f = open_memstream(&buf, &len);
  Check(f != nullptr, "open_memstream");
  bool ok = WritePOD(f, options, s);
  fclose(f);
  out.assign(buf, buf + len);
  free(buf);
  return ok;
}

// True when the file holds a data block with an empty payload.
bool HasEmptyDataBlock(const std::vector<uint8_t>& file) {
  std::vector<podtest::Block> blocks;
  Check(podtest::Walk(file, blocks), "written file is not well framed");
  for (const podtest::Block& b : blocks)
    if (!podtest::IsContainer(b.tag) && b.len == 0) return true;
  return false;
}

void CheckAllocation(size_t size) {
  Check(PODReaderAllocatedBytes() <= kAllocPerByte * size + kAllocSlack,
        "reader allocated too much");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Export-options mode; the text found goes with the scene into the written files.
  char options[64];
  std::memset(options, 0, sizeof options);
  {
    CPODScene s;
    PODReaderResetAllocatedBytes();
    PODReadReport report;
    const bool read = PODReadFromBytes(s, data, size, options, sizeof options - 1, &report);
    Check(read != report.failed(), "options read and its report disagree");
    if (!read) options[0] = 0;
    CheckAllocation(size);
    Check(s.nNumNode == 0 && s.pNode == nullptr, "options mode read a scene");
    podtest::ReleaseScene(s);
  }

  CPODScene scene;
  PODReaderResetAllocatedBytes();
  PODReadReport report;
  bool loaded = PODReadFromBytes(scene, data, size, nullptr, 0, &report);
  Check(loaded != report.failed(), "scene read and its report disagree");
  CheckAllocation(size);
  std::vector<uint8_t> first;
  // A scene the writer refuses (a record without a name, a count beyond its array) ends here.
  if (!loaded || !Write(scene, options, first)) {
    podtest::ReleaseScene(scene);
    return 0;
  }
  const bool fixedPoint = (scene.nFlags & 1u) != 0;
  podtest::ReleaseScene(scene);

  const bool settles = HasEmptyDataBlock(first) || fixedPoint;
  std::vector<uint8_t> previous = first;
  bool stable = false;
  for (int round = 0; round < 4 && !stable; ++round) {
    CPODScene again;
    Check(PODReadFromBytes(again, previous.data(), previous.size(), nullptr, 0),
          "written file does not read back");
    std::vector<uint8_t> next;
    Check(Write(again, options, next), "scene read back cannot be written");
    podtest::ReleaseScene(again);
    stable = next == previous;
    Check(stable || round > 0 || settles, "rewriting changed the bytes");
    previous.swap(next);
  }
  Check(stable, "rewriting never settles");

  if (options[0] != 0) {
    CPODScene s;
    char back[sizeof options];
    std::memset(back, 0, sizeof back);
    Check(PODReadFromBytes(s, first.data(), first.size(), back, sizeof back - 1),
          "written options do not read back");
    Check(std::strcmp(back, options) == 0, "written options differ");
    podtest::ReleaseScene(s);
  }
  return 0;
}
