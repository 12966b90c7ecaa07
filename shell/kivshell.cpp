// Start-up of the tool, the configuration file "kivcfg.txt", the main loop and the glue
// between the line input and the command engine.
#include "shell/kivshell.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "access/access.h"
#include "access/usbio.h"
#include "access/usbio_identity.h"
#include "kiv/kiv_parser.h"
#include "sim/sim.h"


namespace {

constexpr kiv_uint32 kUser = 0;          // the one user registered at start-up

// The line buffer of the interactive loop and of one-shot mode.
char g_line[KIV_LINE_SIZE];

// The configuration file stays open for the life of the process (see kiv_loadConfig).
FILE *g_cfgFile = nullptr;

// Options given before the command words.
struct Options {
  bool errexit = false;   // -e: a failed line sets the exit status (and ends a script)
  int firstWord = 1;      // argv index of the first command word
  const char *adapter = nullptr;   // -a: which USB I/O adapter (wins over KIVTOOL_ADAPTER)
  bool listAdapters = false;       // --list-adapters
};

constexpr int kStatusFailed = 1;
constexpr int kStatusUsage = 2;

constexpr char kUsage[] =
    "Usage: kivtool [options] [command words]\n"
    "\n"
    "  kivtool                     the prompt on a terminal; a script from a file or pipe:\n"
    "                              kivtool < script.txt > log.txt\n"
    "  kivtool reg get 0x103ff0    runs one command line and exits\n"
    "\n"
    "Options (before the command words):\n"
    "  -e, --errexit   fail on a failed line: a command line given as arguments exits\n"
    "                  with status 1; a script stops at that line with status 1 and names\n"
    "                  it on standard error\n"
    "  -a, --adapter SEL\n"
    "                  which USB I/O adapter to use when several are plugged in: path:1-3.1\n"
    "                  (or 1-3.1: the port path, as in /sys/bus/usb/devices), serial:TEXT, or\n"
    "                  dev:BUS/DEV (as lsusb prints it); the tool then stays with that adapter\n"
    "      --list-adapters\n"
    "                  the adapters on this host: node, port path, serial, whether this user\n"
    "                  can open it (tab-separated)\n"
    "  -h, --help      this text\n"
    "      --version   program, build and SDK version\n"
    "  --              end of the options\n"
    "\n"
    "A line fails when it prints \"Errno : <code>\", \"Unknown command\", \"ambiguous command\" or\n"
    "\"Incomplete command\" (a parameter missing: nothing ran),\n"
    "when the command refuses one of its words (\"Error on <n>th token\" or a list of several\n"
    "candidates), or when the command reports a failure in its own messages (flash mismatch,\n"
    "flash read, erase or program failed, a file that cannot be read, vlan table get failed).\n"
    "\n"
    "Environment (read at start-up):\n"
    "  KIVTOOL_SIM=<dir>          the simulated board kept in <dir> instead of the USB adapter\n"
    "  KIVTOOL_SIM_FAULTS=kind@n[,kind@n...]\n"
    "                             simulated adapter faults at the n-th command header: nak,\n"
    "                             badstatus, nocomplete, wrongcode, unplug, datamissing\n"
    "  KIVTOOL_PCAP=<file>        every USB bulk transfer to a pcap file (Wireshark, tshark)\n"
    "  KIVTOOL_TRACE=1            print every register access of the reg commands\n"
    "  KIVTOOL_ADAPTER=SEL        as -a SEL (the option wins)\n"
    "  KIVTOOL_HOTPLUG=0          at the prompt, do not report the adapter leaving or coming\n"
    "\n"
    "Exit status: 0, also when a command failed (look for Success!! or Errno :); with -e,\n"
    "1 for a failed line. 1 for a command line of more than 1023 characters, 2 for an\n"
    "unknown option or a malformed adapter selector.\n"
    "\n"
    "Documentation: README.md (use, a real adapter, keys, scripting, capture), docs/board.md\n"
    "(the simulated board), udev/60-kivtool.rules (access to the adapter without root),\n"
    "tools/wireshark/kivusb.lua (Wireshark dissector of the adapter protocol).\n";

// Reads the options; returns -1 to go on, or the exit status when the run ends here.
int parseOptions(int argc, char **argv, Options &opt) {
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    const std::string_view a = argv[i];
    if (a == "--") {
      ++i;
      break;
    }
    if (a == "-e" || a == "--errexit") {
      opt.errexit = true;
    } else if (a == "-a" || a == "--adapter") {
      if (i + 1 >= argc) {
        fprintf(stderr, "kivtool: %s needs an adapter selector (kivtool --help)\n", argv[i]);
        return kStatusUsage;
      }
      opt.adapter = argv[++i];
    } else if (a.rfind("--adapter=", 0) == 0) {
      opt.adapter = argv[i] + 10;
    } else if (a == "--list-adapters") {
      opt.listAdapters = true;
    } else if (a == "-h" || a == "--help") {
      fputs(kUsage, stdout);
      return 0;
    } else if (a == "--version") {
      printf("kivtool (Quorvex KIV Tool) build %s, SDK version %08x\n", KIV_BUILD_STRING, KIV_SDK_VERSION);
      return 0;
    } else {
      fprintf(stderr, "kivtool: unknown option '%s' (kivtool --help lists them)\n", argv[i]);
      return kStatusUsage;
    }
  }
  opt.firstWord = i;
  if (opt.listAdapters) {
    usbio_list_adapters(stdout);
    return 0;
  }
  const char *sel = opt.adapter ? opt.adapter : getenv("KIVTOOL_ADAPTER");
  if ((opt.adapter && !*opt.adapter) || !usbio_select(sel)) {
    fprintf(stderr,
            "kivtool: malformed adapter selector '%s': use path:BUS-PORT[.PORT...], serial:TEXT or dev:BUS/DEV\n",
            sel);
    return kStatusUsage;
  }
  return -1;
}

// Port-I/O library load step of the parallel-port link. Nothing is loaded on this
// platform; it reports success.
int loadPortIoLibrary() { return 1; }

int usleepDelay(uint32_t usec) { return usleep(usec); }

char *stdioGets(char *buf, int size, FILE *f) { return fgets(buf, size, f); }

// Copies at most n-1 characters of src and terminates; returns the characters copied.
size_t boundedCopy(char *dst, const char *src, size_t n) {
  size_t len = strnlen(src, n - 1);
  memcpy(dst, src, len);
  dst[len] = '\0';
  return len;
}

// Environment knobs, applied before anything touches USB.
int applyEnvironment() {
  const char *simDir = getenv("KIVTOOL_SIM");
  if (simDir && *simDir) {
    const usb_ops_t *ops = sim_attach(simDir);
    if (!ops) {
      fprintf(stderr, "kivshell: cannot attach the simulated board at '%s'\n", simDir);
      return -1;
    }
    usb_ops_set(ops);
  }
  const char *pcap = getenv("KIVTOOL_PCAP");
  if (pcap && *pcap && usb_capture_open(pcap) != 0)
    fprintf(stderr, "kivshell: cannot write the USB capture '%s'\n", pcap);
  const char *trace = getenv("KIVTOOL_TRACE");
  if (trace && std::string_view(trace) == "1") reg_debug_trace = 0x8370;
  return 0;
}

// Brings up the access interface chosen by the configuration.
void bringUpInterface() {
  switch (access_if) {
    case ACCESS_IF_I2C:
      usbio_use_i2c();
      usbio_connect();
      break;
    case ACCESS_IF_SMI:
      usbio_connect();
      usbio_use_smi();
      break;
    case ACCESS_IF_SPI:
      usbio_use_spi();
      usbio_connect();
      break;
    default:
      break;
  }
}

// Reads one line from a non-terminal standard input: no prompt, no echo, CR LF counts
// as LF, NUL bytes are dropped, characters beyond what the editor would accept are
// dropped, and a last line without a newline still counts. Same result contract as
// kiv_readLine.
int readPlainLine(char *line) {
  constexpr int kMaxChars = KIV_LINE_SIZE - 2;
  int len = 0;
  int c;
  bool any = false;
  while ((c = getchar()) != EOF) {
    any = true;
    if (c == '\n') break;
    if (c == '\0') continue;
    if (c == '\t') c = ' ';   // never a completion request: there is no editor to complete into
    if (len < kMaxChars) line[len++] = static_cast<char>(c);
  }
  if (!any) return -1;
  if (len > 0 && line[len - 1] == '\r') --len;
  line[len++] = '\n';
  line[len] = '\0';
  return len;
}

int readNextLine(char *line, signed char lastTerminator, bool terminal) {
  if (terminal) return kiv_readLine(line, lastTerminator);
  return readPlainLine(line);
}

// One command line given as program arguments, from argv[first] on.
int runOneShot(int argc, char **argv, int first, bool errexit) {
  size_t used = 0;
  g_line[0] = '\0';
  for (int i = first; i < argc; ++i) {
    size_t n = strlen(argv[i]);
    if (used + n + 1 >= sizeof g_line) {
      puts("kivshell: command line too long");
      return 1;
    }
    memcpy(g_line + used, argv[i], n);
    used += n;
    g_line[used++] = ' ';
    g_line[used] = '\0';
  }
  if (g_line[0] != '\n' && g_line[0] != '\r') {
    kiv_processLine(g_line, static_cast<int>(strlen(g_line)));
    kiv_hintAfterLine();
    if (errexit && kiv_lineFailed()) return kStatusFailed;
  }
  return 0;
}

// The interactive loop; returns the exit status (with -e, 1 when a script line failed).
int runInteractive(bool errexit) {
  const bool terminal = isatty(0) != 0;
  signed char lastTerminator = 0;
  long lineNo = 0;

  g_line[0] = '\n';
  g_line[1] = '\0';
  kiv_processLine(g_line, 2);
  kiv_buildPrompt(kiv_prompt, KIV_PROMPT_SIZE, g_line, 0);
  kiv_promptLen = static_cast<int>(strlen(kiv_prompt));

  for (;;) {
    // A pre-loaded line only makes sense to the editor; plain input starts empty.
    if (!terminal) g_line[0] = '\0';
    if (readNextLine(g_line, lastTerminator, terminal) <= 0) break;
    ++lineNo;
    if (strcmp(g_line, "exit\n") == 0) break;
    if (g_line[0] == '\n') {
      lastTerminator = 0;
      continue;
    }
    int len = static_cast<int>(strlen(g_line));
    kiv_processLine(g_line, len);
    kiv_hintAfterLine();
    if (errexit && !terminal && kiv_lineFailed()) {
      fflush(stdout);
      fprintf(stderr, "kivtool: line %ld failed: %s\n", lineNo, g_line);
      return kStatusFailed;
    }
    lastTerminator = len >= 2 ? static_cast<signed char>(g_line[len - 2]) : 0;
    kiv_buildPrompt(kiv_prompt, KIV_PROMPT_SIZE, g_line, lastTerminator);
    kiv_promptLen = static_cast<int>(strlen(kiv_prompt));
    if (g_line[0] == '\0' && lastTerminator != '\t') lastTerminator = 0;
  }
  return 0;
}

}  // namespace

void kiv_loadConfig(void) {
  static constexpr char kFile[] = "kivcfg.txt";
  static constexpr struct {
    const char *name;
    uint8_t code;
  } kInterfaces[] = {{"i2c", ACCESS_IF_I2C}, {"smi", ACCESS_IF_SMI}, {"spi", ACCESS_IF_SPI}};
  if (access(kFile, R_OK) != 0) return;
  FILE *f = platform_hooks.fopen ? platform_hooks.fopen(kFile, "r") : fopen(kFile, "r");
  if (!f) return;
  plat_gets_fn readLine = platform_hooks.gets ? platform_hooks.gets : stdioGets;

  int debugLevel = 0;
  char buf[255] = {};
  while (readLine(buf, 254, f)) {
    if (buf[0] == '#') {
      if (debugLevel == 3) printf("skip %s\r\n", buf);
    } else if (strncmp(buf, "debug", 5) == 0) {
      buf[7] = '\0';
      debugLevel = atoi(&buf[6]);
    } else if (strncmp(buf, "interface", 9) == 0) {
      // Only the first three characters of the value count.
      for (const auto &i : kInterfaces) {
        if (strncmp(&buf[10], i.name, 3) != 0) continue;
        access_if_set(i.code);
        if (debugLevel != 0) printf("interface %s\r\n", i.name);
        break;
      }
    } else if (strncmp(buf, "i2caddrid", 9) == 0) {
      if (isdigit(static_cast<unsigned char>(buf[10]))) {
        // One decimal digit, so "0x5" reads as 0: a hexadecimal form is never taken, and
        // existing configuration files rely on that.
        buf[11] = '\0';
        i2caddrid = static_cast<uint8_t>(atoi(&buf[10]) & 7);
        if (debugLevel > 1) printf("i2caddress %u\r\n", static_cast<unsigned>(i2caddrid));
      } else if (debugLevel > 1) {
        printf("i2caddrid is not a number: %c\r\n", buf[10]);
      }
    } else if (strncmp(buf, "mdcaddrid", 9) == 0) {
      const bool digit = isdigit(static_cast<unsigned char>(buf[10])) != 0;
      const bool hex = buf[11] == 'x' || buf[11] == 'X';
      if (digit && !hex) {
        // At most two decimal digits, no range check.
        if (!isdigit(static_cast<unsigned char>(buf[11]))) buf[11] = '\0';
        buf[12] = '\0';
        mdcaddrid = static_cast<uint8_t>(atoi(&buf[10]));
        if (debugLevel > 1) printf("mdcaddrid %u\r\n", static_cast<unsigned>(mdcaddrid));
      } else if (digit) {
        // Hexadecimal from the four characters "0xNN".
        buf[14] = '\0';
        mdcaddrid = static_cast<uint8_t>(strtoul(&buf[10], nullptr, 16));
        if (debugLevel > 1) printf("mdcaddrid %u\r\n", static_cast<unsigned>(mdcaddrid));
      } else if (debugLevel > 1) {
        printf("mdcaddrid is not a number: %c\r\n", buf[10]);
      }
    } else if (debugLevel > 2) {
      puts("no match\r");
    }
    memset(buf, 0, sizeof buf);
  }
  // The handle is deliberately kept open until the process ends.
  g_cfgFile = f;
}

int kiv_processLine(char *line, int length) {
  if (length > KIV_LINE_SIZE - 1) length = KIV_LINE_SIZE - 1;
  // c is the character before the terminator.
  const char c = length >= 2 ? line[length - 2] : '\0';
  if (c != '\n' && length >= 1) {
    line[length - 1] = '\0';
    if (c == '\t') {
      kiv_setCompletion(kUser, 1);
      kiv_cmdProcess(kUser, line, kiv_outputBuffer, KIV_OUTBUF_SIZE);
      kiv_setCompletion(kUser, 0);
    } else {
      kiv_cmdProcess(kUser, line, kiv_outputBuffer, KIV_OUTBUF_SIZE);
      // After an ordinary command nothing is pre-loaded into the next line.
      if (c != '?') kiv_outputBuffer[0] = '\0';
    }
  }
  kiv_getPrompt(kUser, kiv_pathBuffer, KIV_PATHBUF_SIZE);
  return 1;
}

int kiv_buildPrompt(char *prompt, int /*size*/, char *line, signed char lastTerminator) {
  // The path up to its first Tab, then one blank; bounded to the prompt buffer.
  size_t n = 0;
  while (n < KIV_PATHBUF_SIZE && kiv_pathBuffer[n] != '\0' && kiv_pathBuffer[n] != '\t' &&
         n < KIV_PROMPT_SIZE - 2) {
    prompt[n] = kiv_pathBuffer[n];
    ++n;
  }
  prompt[n++] = ' ';
  prompt[n] = '\0';

  if (kiv_pathBuffer[0] != '\0' && (lastTerminator == '\t' || lastTerminator == '?'))
    boundedCopy(line, kiv_outputBuffer, KIV_LINE_SIZE - 1);  // room for newline and NUL
  else
    line[0] = '\0';
  return 0;
}

int kivshell_main(int argc, char **argv) {
  // In a log or a pipe each line goes out as it is complete, so it keeps its place among
  // the lines written to standard error.
  if (!isatty(1)) setvbuf(stdout, nullptr, _IOLBF, 0);
  Options opt;
  if (const int status = parseOptions(argc, argv, opt); status >= 0) return status;
  const bool oneShot = opt.firstWord < argc;

  int devNull = open("/dev/null", O_RDWR | O_CREAT, 0666);
  if (devNull < 0) {
    puts("kivshell: cannot open /dev/null");
    return -1;
  }
  // A log or a pipe gets whole lines as they are made, in step with standard error.
  if (!isatty(STDOUT_FILENO)) setvbuf(stdout, nullptr, _IOLBF, 0);
  if (applyEnvironment() != 0) {
    close(devNull);
    return 1;
  }
  if (usbio_selector()[0] && !usbio_identity_active())
    fputs("kivtool: the simulated board has one adapter; the adapter selector is not used\n", stderr);

  if (!oneShot) printf("#\r\n# Quorvex KIV Tool build %s\r\n#\r\n", KIV_BUILD_STRING);
  printf("# SDK version %08x\r\n#\r\n", KIV_SDK_VERSION);

  if (kiv_init(1, 256, 256) != 0) puts("hxkiv: kiv module initial fail !");
  if (kiv_userInit("3100", 1, 0xC0, 4, &hx5200_rootGroup) == KIV_NOUSER)
    puts("hxkiv: kiv user init failed !");

  kiv_loadConfig();

  if (!loadPortIoLibrary()) {
    printf(" - Load io.dll error");
    return 0;
  }
  lpt_pin_setup_scl_sda(3, 0);
  lpt_pin_setup_sda_in(4);
  lpt_pin_setup_aux(1, 2, 0);
  platform_delay_set(usleepDelay);

  bringUpInterface();
  if (chip_probe() != 0) puts("This KIV build is not match with current chip version");
  kiv_hintAfterLine();

  if (oneShot) return runOneShot(argc, argv, opt.firstWord, opt.errexit);

  if (isatty(0)) {
    kiv_hintBoard(getenv("KIVTOOL_SIM"));
    kiv_hotplugStart();
  }
  const int status = runInteractive(opt.errexit);
  usbio_close(usbio_handle, 0);
  close(devNull);
  return status;
}
