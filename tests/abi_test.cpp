// The shared library as a program links it: its dynamic symbol table holds
// the sixteen entries and nothing else, the row tasks stay local, and each
// entry computes and answers bounds queries through the public header alone.
// ctest also runs this program once per kernel set (QZINTERP3D_KERNEL).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "qzinterp3d_halide.h"
#include "support/test_buffer.h"

namespace qztest {
namespace {

const char* const kEntries[] = {
    "interp3_bilinear_float32", "interp3_bilinear_float64", "interp3_bilinear_int8",
    "interp3_bilinear_int16",   "interp3_bilinear_int32",   "interp3_bilinear_uint8",
    "interp3_bilinear_uint16",  "interp3_bilinear_uint32",  "interp3_nearest_float32",
    "interp3_nearest_float64",  "interp3_nearest_int8",     "interp3_nearest_int16",
    "interp3_nearest_int32",    "interp3_nearest_uint8",    "interp3_nearest_uint16",
    "interp3_nearest_uint32"};

struct Symbol {
  char type;
  std::string name;  // without a version suffix
};

// The defined symbols nm lists for the library, with the given options.
std::vector<Symbol> symbols_of_library(const std::string& nm_options) {
  const std::string command =
      std::string("'") + QZ_NM_PATH + "' " + nm_options + " '" + QZ_SHARED_LIBRARY_PATH + "'";
  std::vector<Symbol> symbols;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    ADD_FAILURE() << "cannot run " << command;
    return symbols;
  }
  char line[4096];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    std::istringstream fields(line);
    std::string address, type, name;
    // Undefined symbols have no address: two fields only.
    if (!(fields >> address >> type >> name)) continue;
    name = name.substr(0, name.find('@'));
    symbols.push_back({type[0], name});
  }
  EXPECT_EQ(0, pclose(pipe)) << command;
  return symbols;
}

TEST(SharedLibrarySymbols, DynamicTableExportsExactlyTheSixteenEntries) {
  std::set<std::string> exported;
  for (const Symbol& s : symbols_of_library("-D --defined-only")) {
    if (s.type == 'A') continue;  // version definitions, not symbols of code or data
    EXPECT_EQ('T', s.type) << s.name << " is exported but not a global function";
    exported.insert(s.name);
  }
  const std::set<std::string> wanted(std::begin(kEntries), std::end(kEntries));
  EXPECT_EQ(wanted, exported);
}

TEST(SharedLibrarySymbols, RowTasksAreLocalAndNotExported) {
  std::map<std::string, char> all;
  for (const Symbol& s : symbols_of_library("")) all[s.name] = s.type;
  std::set<std::string> dynamic;
  for (const Symbol& s : symbols_of_library("-D")) dynamic.insert(s.name);
  for (const char* entry : kEntries) {
    const std::string task = std::string(entry) + "_par_for_Vq_s0_y_rebased";
    ASSERT_TRUE(all.count(task)) << task << " missing from the symbol table";
    EXPECT_EQ('t', all[task]) << task << " is not a local function";
    EXPECT_FALSE(dynamic.count(task)) << task << " is in the dynamic table";
  }
}

using Entry = int (*)(halide_buffer_t*, halide_buffer_t*, halide_buffer_t*, halide_buffer_t*,
                      double, halide_buffer_t*);

// A call on grid points through a shared entry: one grid of nx samples along
// x, and a row that reads them in turn, then a point outside. Both paths.
template <class S>
void check_small_call(Entry entry, const char* name) {
  using C = std::conditional_t<std::is_same_v<S, double>, double, float>;
  constexpr int32_t W = static_cast<int32_t>(16 / sizeof(S));
  for (const int32_t nx : {W, W + 1}) {
    SCOPED_TRACE(std::string(name) + " nx " + std::to_string(nx));
    const int32_t width = 2 * W + 1;
    TestBuffer<S> v({0, 0, 0}, {nx, 1, 1});
    v.fill([](int64_t i, int64_t, int64_t) { return static_cast<S>(3 * i + 1); });
    TestBuffer<C> xq({0, 0}, {width, 2}), yq({0, 0}, {width, 2}), zq({0, 0}, {width, 2});
    TestBuffer<C> out({0, 0}, {width, 2});
    xq.fill([&](int64_t x, int64_t, int64_t) { return x + 1 == width ? C(0) : C(1 + x % nx); });
    yq.fill([](int64_t, int64_t, int64_t) { return C(1); });
    zq.fill([](int64_t, int64_t, int64_t) { return C(1); });
    ASSERT_EQ(0, entry(v.raw(), xq.raw(), yq.raw(), zq.raw(), -0.5, out.raw()));
    for (int64_t y = 0; y < 2; ++y) {
      for (int64_t x = 0; x < width; ++x) {
        const C want = x + 1 == width ? C(-0.5) : static_cast<C>(static_cast<S>(3 * (x % nx) + 1));
        const C got = out.at(x, y);
        EXPECT_EQ(0, std::memcmp(&got, &want, sizeof got))
            << "column " << x << " row " << y << ": got " << got << ", want " << want;
      }
    }
    EXPECT_TRUE(out.outside_untouched());
  }
}

// A bounds query through a shared entry: a narrow output on a wide grid
// grows to one block.
template <class S>
void check_query(Entry entry, const char* name) {
  constexpr int32_t W = static_cast<int32_t>(16 / sizeof(S));
  halide_dimension_t dims[5][3] = {{{0, W + 1, 1, 0}, {0, 1, W + 1, 0}, {0, 1, W + 1, 0}},
                                   {{0, 1, 1, 0}, {0, 1, 1, 0}},
                                   {{0, 1, 1, 0}, {0, 1, 1, 0}},
                                   {{0, 1, 1, 0}, {0, 1, 1, 0}},
                                   {{4, 1, 1, 0}, {2, 3, 1, 0}}};
  unsigned char storage[16] = {};
  halide_buffer_t buffers[5];
  for (int i = 0; i < 5; ++i) {
    buffers[i] = halide_buffer_t{};
    buffers[i].host = storage;
    buffers[i].dimensions = i == 0 ? 3 : 2;
    buffers[i].dim = dims[i];
  }
  buffers[1].host = nullptr;  // Xq asks
  ASSERT_EQ(0, entry(&buffers[0], &buffers[1], &buffers[2], &buffers[3], 0.0, &buffers[4]));
  EXPECT_EQ(4 + 1 - W, dims[1][0].min) << name;
  EXPECT_EQ(W, dims[1][0].extent) << name;
  EXPECT_EQ(2, dims[1][1].min) << name;
  EXPECT_EQ(3, dims[1][1].extent) << name;
  EXPECT_EQ(W, dims[1][1].stride) << name;
  EXPECT_EQ(sizeof(S) == 8 ? 64 : 32, buffers[1].type.bits) << name;
  for (const unsigned char b : storage) EXPECT_EQ(0, b) << name;
}

TEST(SharedLibraryCalls, EveryEntryComputesAndAnswersQueries) {
  if (const char* set = std::getenv("QZINTERP3D_KERNEL")) {
    ::testing::Test::RecordProperty("kernel_set", set);
  }
#define QZ_TEST_SHARED_ENTRY(name, S) \
  check_small_call<S>(&name, #name);  \
  check_query<S>(&name, #name);
  QZ_TEST_SHARED_ENTRY(interp3_bilinear_float32, float)
  QZ_TEST_SHARED_ENTRY(interp3_bilinear_float64, double)
  QZ_TEST_SHARED_ENTRY(interp3_bilinear_int8, int8_t)
  QZ_TEST_SHARED_ENTRY(interp3_bilinear_int16, int16_t)
  QZ_TEST_SHARED_ENTRY(interp3_bilinear_int32, int32_t)
  QZ_TEST_SHARED_ENTRY(interp3_bilinear_uint8, uint8_t)
  QZ_TEST_SHARED_ENTRY(interp3_bilinear_uint16, uint16_t)
  QZ_TEST_SHARED_ENTRY(interp3_bilinear_uint32, uint32_t)
  QZ_TEST_SHARED_ENTRY(interp3_nearest_float32, float)
  QZ_TEST_SHARED_ENTRY(interp3_nearest_float64, double)
  QZ_TEST_SHARED_ENTRY(interp3_nearest_int8, int8_t)
  QZ_TEST_SHARED_ENTRY(interp3_nearest_int16, int16_t)
  QZ_TEST_SHARED_ENTRY(interp3_nearest_int32, int32_t)
  QZ_TEST_SHARED_ENTRY(interp3_nearest_uint8, uint8_t)
  QZ_TEST_SHARED_ENTRY(interp3_nearest_uint16, uint16_t)
  QZ_TEST_SHARED_ENTRY(interp3_nearest_uint32, uint32_t)
#undef QZ_TEST_SHARED_ENTRY
}

}  // namespace
}  // namespace qztest
