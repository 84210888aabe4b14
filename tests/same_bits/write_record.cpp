// Writes the outputs of the recorded calls (recorded_calls.h), computed with
// the kernel set this CPU would use, to the file named on the command line.
#include <cstdio>
#include <fstream>

#include "kernels/dispatch.h"
#include "same_bits/recorded_calls.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s RECORD_FILE\n", argv[0]);
    return 2;
  }
  const auto calls = qztest::same_bits::record_calls();
  std::ofstream out(argv[1], std::ios::binary);
  qztest::same_bits::write_record(out, calls);
  out.close();
  if (!out) {
    std::fprintf(stderr, "%s: cannot write %s\n", argv[0], argv[1]);
    return 1;
  }
  std::printf("%zu calls recorded with kernel set %s\n", calls.size(),
              qzinterp3d::active_kernel_set().name);
  return 0;
}
