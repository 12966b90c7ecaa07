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
// Writes the prompt for the next read into prompt (at most size bytes with the NUL): the
// engine's path up to its first Tab and one blank. Then pre-loads line (kiv_preloadLine).
int kiv_buildPrompt(char *prompt, int size, char *line, signed char lastTerminator);
// The text the next line starts with: after a Tab or a "?" (lastTerminator) the text the
// engine left for the editor, otherwise nothing. line holds KIV_LINE_SIZE bytes.
void kiv_preloadLine(char *line, signed char lastTerminator);

extern char kiv_prompt[KIV_PROMPT_SIZE];
extern int kiv_promptLen;

// Console line editor: returns the characters in line (newline included) or -1.
int kiv_readLine(char *line, signed char lastTerminator);

// Hints on standard error when it is a terminal: the simulated board's directory at
// start-up, and after start-up and each line the cause of a failed adapter transfer.
void kiv_hintBoard(const char *dir);
void kiv_hintAfterLine(void);
