// Counts the locks that the OpenMP runtime takes for named critical sections. Without the section the result
// of DataRange would be wrong too rarely for a test to notice.
#include <dlfcn.h>

#include <atomic>
#include <span>
#include <vector>

#include <fullwaveform/host/DataRange.h>
#include <gtest/gtest.h>

namespace {

std::atomic<int> entered{0};
std::atomic<int> left{0};

using Section = void (*)(void**);

Section next(char const* name) {
  return reinterpret_cast<Section>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void GOMP_critical_name_start(void** lock) {
  next("GOMP_critical_name_start")(lock);
  ++entered;
}

extern "C" __attribute__((visibility("default"))) void GOMP_critical_name_end(void** lock) {
  ++left;
  next("GOMP_critical_name_end")(lock);
}

namespace Kestra {
namespace {

TEST(DataRange, ThreadsCombineTheirResultsInACriticalSection) {
  int const before = entered;
  std::vector<double> const values{3.0, 1.0, 2.0};
  DataRange<double> const range{std::span<double const>(values)};
  EXPECT_EQ(range.minimum(), 1.0);
  EXPECT_GT(entered, before);
  EXPECT_EQ(left, entered);
}

}  // namespace
}  // namespace Kestra
