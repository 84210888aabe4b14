// Build tool: compiles the plain Halide pipelines the benchmarks measure ours
// against. Same algorithm and arguments as the library's entries, written the
// way a Halide user would write it, with the plainest schedule:
//
//   Vq.vectorize(x, natural vector width, GuardWithIf).parallel(y)
//
// One object file per pipeline, `plain_<target>_<method>_<type>.o`, each
// exporting that name with the entries' signature
//   int f(halide_buffer_t* V, halide_buffer_t* Xq, halide_buffer_t* Yq,
//         halide_buffer_t* Zq, double fill_value, halide_buffer_t* Vq).
// The targets are named in full, never the host's, and carry no runtime:
// the pipelines run on libqzhalideRuntime, the pool the library uses.
// Halide's own argument and bounds checks are kept, as a user's would be;
// so are its default floating-point flags (no strict_float).
#include <Halide.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

struct PlainTarget {
  const char* name;
  const char* halide;  // the Halide target, features spelled out
};

// sse41: 16-byte vectors, as the library's entries. avx2: 32-byte vectors,
// the widest a CPU without AVX-512 (Zen 3, Intel client cores) runs.
// avx512: the feature set a Skylake-X server has (what Halide 14 itself
// detects there), 64-byte vectors.
const PlainTarget kTargets[] = {
    {"sse41", "x86-64-linux-sse41-no_runtime"},
    {"avx2", "x86-64-linux-sse41-avx-f16c-fma-avx2-no_runtime"},
    {"avx512", "x86-64-linux-sse41-avx-f16c-fma-avx2-avx512-avx512_skylake-no_runtime"},
};

struct SampleType {
  const char* name;
  Halide::Type type;
};

const SampleType kSampleTypes[] = {
    {"float32", Halide::Float(32)}, {"float64", Halide::Float(64)}, {"int8", Halide::Int(8)},
    {"uint8", Halide::UInt(8)},     {"int16", Halide::Int(16)},     {"uint16", Halide::UInt(16)},
    {"int32", Halide::Int(32)},     {"uint32", Halide::UInt(32)},
};

enum class Method { nearest, trilinear };

// Per point, with 1-based coordinates q and d = q - 1 in the coordinate
// type: outside (fill) when 1 > q or d > n - 1 on any axis; nearest reads
// the sample at round-to-even(d), trilinear blends the floor and ceiling
// corners with weights 2 - t and t - 1, t = q - floor corner. Indices are
// clamped to [0, n - 1] whether the point is inside or not.
void compile_pipeline(Method method, const SampleType& sample, const PlainTarget& target,
                      const std::string& out_dir) {
  using namespace Halide;
  const Type coord = sample.type == Float(64) ? Float(64) : Float(32);
  ImageParam V(sample.type, 3, "V");
  ImageParam Xq(coord, 2, "Xq"), Yq(coord, 2, "Yq"), Zq(coord, 2, "Zq");
  Param<double> fill_value("fill_value");
  Var x("x"), y("y");

  const Expr one = cast(coord, 1), two = cast(coord, 2);
  const Expr q[3] = {Xq(x, y), Yq(x, y), Zq(x, y)};
  Expr outside = cast<bool>(false);
  Expr lower[3], upper[3], t[3];
  for (int axis = 0; axis < 3; ++axis) {
    const Expr last = V.dim(axis).extent() - 1;
    const Expr d = q[axis] - one;
    outside = outside || one > q[axis] || d > cast(coord, last);
    if (method == Method::nearest) {
      lower[axis] = clamp(cast<int>(round(d)), 0, last);
    } else {
      lower[axis] = clamp(cast<int>(floor(d)), 0, last);
      upper[axis] = clamp(cast<int>(ceil(d)), 0, last);
      t[axis] = q[axis] - cast(coord, lower[axis]);
    }
  }

  auto sample_at = [&](const Expr& i, const Expr& j, const Expr& k) {
    return cast(coord, V(i, j, k));
  };
  Expr value;
  if (method == Method::nearest) {
    value = sample_at(lower[0], lower[1], lower[2]);
  } else {
    auto blend = [&](const Expr& a, const Expr& b, int axis) {
      return a * (two - t[axis]) + b * (t[axis] - one);
    };
    auto along_x = [&](const Expr& j, const Expr& k) {
      return blend(sample_at(lower[0], j, k), sample_at(upper[0], j, k), 0);
    };
    auto plane = [&](const Expr& k) {
      return blend(along_x(lower[1], k), along_x(upper[1], k), 1);
    };
    value = blend(plane(lower[2]), plane(upper[2]), 2);
  }

  Func Vq("Vq");
  Vq(x, y) = select(outside, cast(coord, fill_value), value);

  const Target halide_target(target.halide);
  Vq.vectorize(x, halide_target.natural_vector_size(coord), TailStrategy::GuardWithIf)
      .parallel(y);

  const std::string name = std::string("plain_") + target.name + "_" +
                           (method == Method::nearest ? "nearest_" : "bilinear_") + sample.name;
  Vq.compile_to_object(out_dir + "/" + name + ".o", {V, Xq, Yq, Zq, fill_value}, name,
                       halide_target);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s OUTPUT_DIR sse41|avx2|avx512\n", argv[0]);
    return 2;
  }
  const std::string out_dir = argv[1], wanted = argv[2];
  for (const PlainTarget& target : kTargets) {
    if (wanted != target.name) continue;
    for (const SampleType& sample : kSampleTypes) {
      compile_pipeline(Method::nearest, sample, target, out_dir);
      compile_pipeline(Method::trilinear, sample, target, out_dir);
    }
    return 0;
  }
  std::fprintf(stderr, "%s: unknown target %s\n", argv[0], argv[2]);
  return 2;
}
