// The option scanner of fg_splice.
//
// Its state is process-wide and lives as long as the program; main() reads and advances
// opt_index itself to take the words behind -b, -B and -l. Not reentrant.
#pragma once

extern int opt_index;          // index in argv of the next word to look at; starts at 1
extern const char* opt_cursor; // next letter inside the current option word
extern int opt_letter;         // letter most recently taken
extern char* opt_argument;     // argument of the option just returned, null if none

// Returns the next option letter, '?' (63) after a reported mistake, or -1 at the end of the
// options. Options are not permuted: scanning stops at the first word without a leading '-'.
int opt_next(int argc, char** argv, const char* options);

// Resets the scanner to its start values (for a second scan in the same process).
void opt_reset();

// Writes the usage text to stderr and ends the process with exit code 1.
[[noreturn]] void print_usage(const char* program);
