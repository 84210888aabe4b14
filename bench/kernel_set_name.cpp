// Prints the kernel set the library picks in this environment (the CPU and
// QZINTERP3D_KERNEL), resolved by the same dispatch code the library is
// built from. With --list, prints every built-in set and whether this CPU
// can run it.
#include <cstdio>
#include <cstring>

#include "kernels/dispatch.h"

int main(int argc, char **argv) {
  if (argc > 1 && std::strcmp(argv[1], "--list") == 0) {
    for (int i = 0; i < qzinterp3d::kernel_set_count(); ++i) {
      const qzinterp3d::KernelSetEntry e = qzinterp3d::kernel_set_at(i);
      std::printf("%s %s\n", e.set->name, e.supported ? "supported" : "unsupported");
    }
    return 0;
  }
  std::printf("%s\n", qzinterp3d::active_kernel_set().name);
  return 0;
}
