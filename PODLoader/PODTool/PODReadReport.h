#pragma once
// The reader's account of a read, beside its boolean: why and where a read stopped, and what a
// file that reads (or partly reads) lacks or holds twice compared with a complete file. A user
// converting thousands of files is told of a damaged one instead of shipping half a scene.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

enum class EPODReadFailure : uint8_t {
  None,
  CannotOpen,           // not a readable regular file
  Truncated,            // the data ends inside a block or a record
  BadVersion,           // a version block that is not "AB.POD.2.0" with its zero
  NoVersion,            // the file has no version block
  NoScene,              // the file holds no scene
  NoExportOptions,      // (options mode) no export-options block ahead of the scene
  OutOfMemory,          // an array the file asks for could not be allocated
  TooManyRecords,       // a count that the rest of the file cannot hold
  RecordWithoutSlot,    // a record block before its count or beyond it
  CountMismatch,        // the scene's counts differ from the records it holds
  StreamCountMismatch,  // a mesh's texture-coordinate streams differ from its count
};

struct PODReadReport {
  EPODReadFailure failure = EPODReadFailure::None;
  uint32_t failureOffset = 0;  // byte of the file at which reading stopped
  std::string failureWhere;    // what was being read: "mesh 2", "the scene", "the file"
  std::string failureDetail;   // what did not fit, where there is more to say

  // One line each, naming the record ("node 3: block 5003 (nIdxParent) is missing"); only the
  // first kMaxKept are kept, irregularityCount counts them all.
  static constexpr size_t kMaxKept = 64;
  std::vector<std::string> irregularities;
  size_t irregularityCount = 0;

  bool failed() const { return failure != EPODReadFailure::None; }
  // "the data ends inside mesh 2 at byte 1234"; empty when nothing failed.
  std::string DescribeFailure() const;
  void AddIrregularity(std::string text);
};

// Field name of a block tag ("nNumVertex" for 6000), or null for a tag the format does not have.
const char* PODTagField(uint32_t tag);
// "block 6004 (pnStripLength)", or the number alone for a tag the format does not have.
std::string PODBlockName(uint32_t tag);
