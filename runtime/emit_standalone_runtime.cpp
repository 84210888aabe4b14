// Build tool: writes Halide's standalone runtime as an object file, for
// libqzhalideRuntime. Without a target, the host's OS and architecture
// without optional CPU features, so the runtime runs on any CPU of that
// architecture; a cross build names its own (e.g. arm-64-linux).
#include <Halide.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::fprintf(stderr, "usage: %s OUTPUT.o [TARGET]\n", argv[0]);
    return 2;
  }
  Halide::Target target;
  if (argc == 3) {
    if (!Halide::Target::validate_target_string(argv[2])) {
      std::fprintf(stderr, "%s: not a Halide target: %s\n", argv[0], argv[2]);
      return 2;
    }
    target = Halide::Target(argv[2]);
  } else {
    const Halide::Target host = Halide::get_host_target();
    target = Halide::Target(host.os, host.arch, host.bits);
  }
  Halide::compile_standalone_runtime(argv[1], target);
  return 0;
}
