#include "shell/kivshell.h"

int main(int argc, char **argv) {
  kivshell_guardStdDescriptors();
  return kivshell_finishOutput(kivshell_main(argc, argv));
}
