// camsim-run [--no-log-stderr] PROGRAM [ARGS]: runs PROGRAM with the
// simulated camera driver preloaded, so an unmodified program finds the
// camera's device nodes, and with the library's messages copied to standard
// error (a workstation often has no syslog daemon to keep them).
#include <link.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool readable(const std::string& path) { return !path.empty() && access(path.c_str(), R_OK) == 0; }

std::string own_directory() {
  char buf[4096];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return {};
  std::string path(buf, static_cast<std::size_t>(n));
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? std::string{} : path.substr(0, slash);
}

// Next to the launcher in a build tree, in the library directory of an
// installation, else where the build put it.
std::string find_library() {
  const std::string dir = own_directory();
  for (const std::string& candidate :
       {dir + "/libcamsim.so", dir + "/../" CAMSIM_INSTALL_LIBDIR "/libcamsim.so",
        std::string(CAMSIM_BUILD_LIBRARY)})
    if (readable(candidate)) return candidate;
  return {};
}

// A sanitizer runtime must come first in the search order. When the
// launcher carries one, libcamsim.so from the same build needs it too, so it
// is preloaded ahead of the simulator.
int find_sanitizer_runtime(dl_phdr_info* info, std::size_t, void* data) {
  const char* name = info->dlpi_name;
  if (name != nullptr && (std::strstr(name, "/libasan.so") || std::strstr(name, "/libtsan.so"))) {
    *static_cast<std::string*>(data) = name;
    return 1;
  }
  return 0;
}

constexpr char kUsage[] =
    "usage: camsim-run [--no-log-stderr] PROGRAM [ARGS...]\n"
    "\n"
    "Runs PROGRAM with the simulated camera driver (libcamsim.so) preloaded: inside it\n"
    "/dev/cam0, /dev/camquad, /dev/cam1 to /dev/cam14 and /dev/galcore exist, and the\n"
    "driver's commands act on the one simulated driver state of this machine.\n"
    "\n"
    "libzantrel's messages also go to standard error (ZANTREL_LOG_STDERR=1), unless\n"
    "--no-log-stderr is given or ZANTREL_LOG_STDERR is set already (0 turns it off).\n"
    "\n"
    "  -h, --help         this text\n"
    "  --no-log-stderr    leave the library's messages to syslog only\n"
    "\n"
    "Exit status: PROGRAM's; 127 when PROGRAM or libcamsim.so is not found, 126 when\n"
    "PROGRAM cannot be run, 2 on wrong usage.\n";

}  // namespace

int main(int argc, char** argv) {
  int first = 1;
  bool log_stderr = true;
  for (; first < argc && argv[first][0] == '-'; ++first) {
    const std::string option = argv[first];
    if (option == "-h" || option == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (option == "--no-log-stderr") {
      log_stderr = false;
    } else if (option == "--") {
      ++first;
      break;
    } else {
      std::fprintf(stderr, "camsim-run: unknown option %s\n%s", option.c_str(), kUsage);
      return 2;
    }
  }
  if (first >= argc) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  if (log_stderr && setenv("ZANTREL_LOG_STDERR", "1", 0) != 0) {
    std::perror("camsim-run: setenv");
    return 127;
  }
  const std::string library = find_library();
  if (library.empty()) {
    std::fprintf(stderr, "camsim-run: libcamsim.so not found\n");
    return 127;
  }
  std::string preload;
  dl_iterate_phdr(find_sanitizer_runtime, &preload);
  if (!preload.empty()) preload += ':';
  preload += library;
  if (const char* old = std::getenv("LD_PRELOAD"); old != nullptr && *old != '\0') {
    preload += ':';
    preload += old;
  }
  if (setenv("LD_PRELOAD", preload.c_str(), 1) != 0) {
    std::perror("camsim-run: setenv");
    return 127;
  }
  execvp(argv[first], argv + first);
  std::fprintf(stderr, "camsim-run: %s: %s\n", argv[first], std::strerror(errno));
  return errno == ENOENT ? 127 : 126;
}
