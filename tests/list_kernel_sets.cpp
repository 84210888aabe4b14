// Prints each kernel set built into the library, one a line: its name, then
// 1 if this CPU can run it, else 0. ctest uses it to run the shared-library
// tests once per kernel set.
#include <cstdio>

#include "kernels/dispatch.h"

int main() {
  for (int i = 0; i < qzinterp3d::kernel_set_count(); ++i) {
    const qzinterp3d::KernelSetEntry entry = qzinterp3d::kernel_set_at(i);
    std::printf("%s %d\n", entry.set->name, entry.supported ? 1 : 0);
  }
  return 0;
}
