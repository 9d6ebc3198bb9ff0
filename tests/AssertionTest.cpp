#include <gtest/gtest.h>

#include "pod/Assertion.h"

namespace {

void checkIndex(int _index) { KX_ASSERT_TEXT(_index != -1, "_index!=-1", "PODLoader/SkeletonNodeConverter", 204); }
void checkCount(int n) { KX_ASSERT(n >= 0, "main"); }

TEST(Assertion, FailurePrintsExpressionFunctionSourceAndFixedLine) {
  EXPECT_DEATH(checkIndex(-1),
               "PODLoader/SkeletonNodeConverter:204: checkIndex: Assertion `_index!=-1' failed\\.");
}

TEST(Assertion, FailurePrintsTheExpressionAsWritten) {
  EXPECT_DEATH(checkCount(-3), "main:[0-9]+: checkCount: Assertion `n >= 0' failed\\.");
}

}  // namespace
