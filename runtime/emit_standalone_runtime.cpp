// Build tool: writes Halide's standalone runtime as an object file, for
// libqzhalideRuntime. The target is the host's OS and architecture without
// optional CPU features, so the runtime runs on any CPU of that architecture.
#include <Halide.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUTPUT.o\n", argv[0]);
    return 2;
  }
  const Halide::Target host = Halide::get_host_target();
  const Halide::Target baseline(host.os, host.arch, host.bits);
  Halide::compile_standalone_runtime(argv[1], baseline);
  return 0;
}
