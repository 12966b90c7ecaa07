// Start-up, configuration file and the main loop.
#pragma once

#include <cstdint>

#define KIV_SDK_VERSION 0x040A0000u
#define KIV_BUILD_STRING "20210719"
#define KIV_LINE_SIZE 1024
#define KIV_PROMPT_SIZE 64

int kivshell_main(int argc, char **argv);

void kiv_loadConfig(void);
int kiv_processLine(char *line, int length);
int kiv_buildPrompt(char *prompt, int size, char *line, signed char lastTerminator);

extern char kiv_prompt[KIV_PROMPT_SIZE];
extern int kiv_promptLen;

// Console line editor: returns the characters in line (newline included) or -1.
int kiv_readLine(char *line, signed char lastTerminator);
// A descriptor the editor also watches while it waits for a key (-1: none). When it is
// readable the editor calls check(); a result of 0 or more is handed to report(), which
// prints whole lines below the line being typed; the editor then draws prompt and line again.
void kiv_readLineWatch(int fd, int (*check)(void), void (*report)(int));
// The USB I/O adapter leaving or coming while the prompt waits (kivshell_hotplug.cpp):
// installs the editor's watch unless KIVTOOL_HOTPLUG=0 or the board is simulated.
void kiv_hotplugStart(void);

// Hints on standard error when it is a terminal: the simulated board's directory at
// start-up, and after start-up and each line the cause of a failed adapter transfer.
void kiv_hintBoard(const char *dir);
void kiv_hintAfterLine(void);
