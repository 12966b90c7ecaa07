#include "shell/kivshell.h"

int kivshell_main(int, char **) { return 0; }
