#include "pod/PODReadReport.h"

#include <utility>

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
