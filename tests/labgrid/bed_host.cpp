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
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "run_tool.h"
#include "sim/usbfs/usbfs_bed.h"

namespace {

struct AdapterArg {
  std::string port, serial;
};

// The adapters by the port they are plugged into, and by the port they were pulled from.
struct Ports {
  std::map<std::string, int> in, out;
};

// Serves requests until the program closes its end of the request pipe.
void serve(UsbfsBed &bed, Ports &ports, int req, int rep) {
  FILE *in = fdopen(req, "r");
  char line[256];
  while (in && fgets(line, sizeof line, in)) {
    char verb[16] = {}, port[64] = {}, other[64] = {};
    const int n = sscanf(line, "%15s %63s %63s", verb, port, other);
    std::string answer = "ok\n";
    if (n >= 2 && strcmp(verb, "pull") == 0 && ports.in.count(port)) {
      bed.pull(ports.in[port]);
      ports.out[port] = ports.in[port];
      ports.in.erase(port);
    } else if (n >= 2 && strcmp(verb, "plug") == 0 && ports.out.count(port)) {
      const std::string to = n == 3 ? other : port;
      bed.plug_back(ports.out[port], to);
      ports.in[to] = ports.out[port];
      ports.out.erase(port);
    } else {
      answer = std::string("error: cannot ") + line;
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
    const char *asan = getenv("ASAN_OPTIONS");   // a sanitizer build accepts the preload ahead
    setenv("ASAN_OPTIONS", (std::string(asan ? asan : "") + ":verify_asan_link_order=0").c_str(), 1);
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
  Ports ports;
  for (const AdapterArg &a : adapters) ports.in[a.port] = bed.plug_adapter_at(a.port, a.serial, dir + "/" + a.port);

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
  std::thread server(serve, std::ref(bed), std::ref(ports), reqPipe[0], repPipe[1]);
  int st = 0;
  waitpid(pid, &st, 0);
  server.join();
  return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}
