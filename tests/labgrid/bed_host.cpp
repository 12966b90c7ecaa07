// Runs a command (a labgrid pytest session) under the usbfs test bed with several adapters,
// each with its own board, and lets it pull and plug adapters while it runs.
//
//   labgrid_bed_host [--adapter PORT[:SERIAL]]... -- program [args...]
//
// The program gets the bed's environment (umockdev's preload: it and every tool it starts
// see the bed's /sys and /dev) and KIVBED_CTL=<request fd>,<reply fd>. A request is one
// line, answered by one line ("ok" or "error: <why>"):
//   pull PORT            the adapter at PORT leaves the bus (node removed, "remove" event)
//   plug PORT [NEWPORT]  the adapter pulled from PORT comes back, at NEWPORT if given
// The exit status is the program's.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "run_tool.h"
#include "sim/usbfs/usbfs_bed.h"

namespace {

struct AdapterArg {
  std::string port, serial;
};

// Serves requests until the program closes its end of the request pipe.
void serve(UsbfsBed &bed, int req, int rep) {
  FILE *in = fdopen(req, "r");
  char line[256];
  while (in && fgets(line, sizeof line, in)) {
    char verb[16] = {}, port[64] = {}, other[64] = {};
    const int n = sscanf(line, "%15s %63s %63s", verb, port, other);
    std::string answer = "ok\n";
    if (n >= 2 && strcmp(verb, "pull") == 0) {
      if (!bed.pull(port)) answer = std::string("error: no adapter plugged in at ") + port + "\n";
    } else if (n >= 2 && strcmp(verb, "plug") == 0) {
      if (!bed.plug_back(port, n == 3 ? other : port))
        answer = std::string("error: no adapter pulled from ") + port + "\n";
    } else {
      answer = "error: unknown request\n";
    }
    if (write(rep, answer.data(), answer.size()) < 0) break;
  }
  if (in) fclose(in);
  close(rep);
}

int usage() {
  fputs("usage: labgrid_bed_host [--adapter PORT[:SERIAL]]... -- program [args...]\n", stderr);
  return 2;
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<AdapterArg> adapters;
  int i = 1;
  for (; i < argc && strcmp(argv[i], "--") != 0; ++i) {
    if (strcmp(argv[i], "--adapter") != 0 || i + 1 >= argc) return usage();
    const std::string a = argv[++i];
    const size_t colon = a.find(':');
    adapters.push_back({a.substr(0, colon), colon == std::string::npos ? "" : a.substr(colon + 1)});
  }
  if (i + 1 >= argc) return usage();
  // umockdev sends a device's "add" and "remove" events to the udev monitors of the
  // programs under the bed (labgrid's resources hear adapters come and go) only from a
  // process that runs under its preload library itself: start again under it.
  if (!getenv("KIVBED_PRELOADED")) {
    setenv("KIVBED_PRELOADED", "1", 1);
    setenv("LD_PRELOAD", KIV_UMOCKDEV_LIBDIR "/libumockdev-preload.so.0", 1);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 0);
    execv("/proc/self/exe", argv);
    perror("labgrid_bed_host: cannot start again under the preload library");
    return 1;
  }
  std::string why;
  if (!usbfs_bed_available(why)) {
    fprintf(stderr, "labgrid_bed_host: %s\n", why.c_str());
    return 1;
  }
  const std::string dir = make_temp_dir("labgridbed");
  UsbfsBed bed(dir);
  bed.plug_decoy();
  for (const AdapterArg &a : adapters) bed.plug_at(a.port, a.serial, dir + "/" + a.port);

  int reqPipe[2], repPipe[2];
  if (pipe(reqPipe) != 0 || pipe(repPipe) != 0) return 1;
  const std::string ctl = std::to_string(reqPipe[1]) + "," + std::to_string(repPipe[0]);
  const pid_t pid = fork();
  if (pid == 0) {
    close(reqPipe[0]);
    close(repPipe[1]);
    setenv("KIVBED_CTL", ctl.c_str(), 1);
    for (const auto &[k, v] : bed.child_env(false)) setenv(k.c_str(), v.c_str(), 1);
    execvp(argv[i + 1], argv + i + 1);
    perror(argv[i + 1]);
    _exit(127);
  }
  close(reqPipe[1]);
  close(repPipe[0]);
  std::thread server(serve, std::ref(bed), reqPipe[0], repPipe[1]);
  int st = 0;
  waitpid(pid, &st, 0);
  server.join();
  return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}
