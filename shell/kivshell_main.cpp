#include "shell/kivshell.h"

int main(int argc, char **argv) { return kivshell_main(argc, argv); }
