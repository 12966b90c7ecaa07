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
#include "kiv/kiv_parser.h"
#include "sim/sim.h"

char kiv_prompt[KIV_PROMPT_SIZE];
int kiv_promptLen;

namespace {

constexpr kiv_uint32 kUser = 0;          // the one user registered at start-up

// The line buffer of the interactive loop and of one-shot mode.
char g_line[KIV_LINE_SIZE];

// The configuration file stays open for the life of the process (see kiv_loadConfig).
FILE *g_cfgFile = nullptr;

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

// One command line given as program arguments.
int runOneShot(int argc, char **argv) {
  size_t used = 0;
  g_line[0] = '\0';
  for (int i = 1; i < argc; ++i) {
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
  if (g_line[0] != '\n' && g_line[0] != '\r')
    kiv_processLine(g_line, static_cast<int>(strlen(g_line)));
  return 0;
}

void runInteractive() {
  const bool terminal = isatty(0) != 0;
  signed char lastTerminator = 0;

  g_line[0] = '\n';
  g_line[1] = '\0';
  kiv_processLine(g_line, 2);
  kiv_buildPrompt(kiv_prompt, KIV_PROMPT_SIZE, g_line, 0);
  kiv_promptLen = static_cast<int>(strlen(kiv_prompt));

  for (;;) {
    // A pre-loaded line only makes sense to the editor; plain input starts empty.
    if (!terminal) g_line[0] = '\0';
    if (readNextLine(g_line, lastTerminator, terminal) <= 0) break;
    if (strcmp(g_line, "exit\n") == 0) break;
    if (g_line[0] == '\n') {
      lastTerminator = 0;
      continue;
    }
    int len = static_cast<int>(strlen(g_line));
    kiv_processLine(g_line, len);
    lastTerminator = len >= 2 ? static_cast<signed char>(g_line[len - 2]) : 0;
    kiv_buildPrompt(kiv_prompt, KIV_PROMPT_SIZE, g_line, lastTerminator);
    kiv_promptLen = static_cast<int>(strlen(kiv_prompt));
    if (g_line[0] == '\0' && lastTerminator != '\t') lastTerminator = 0;
  }
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

  if (argc <= 1) printf("#\r\n# Quorvex KIV Tool build %s\r\n#\r\n", KIV_BUILD_STRING);
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

  if (argc > 1) return runOneShot(argc, argv);

  runInteractive();
  usbio_close(usbio_handle, 0);
  close(devNull);
  return 0;
}
