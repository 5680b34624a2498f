// What the service prints on standard output (the build banner, the parameter records, the
// hex dumps of the traffic levels). The text is the recorder's; the way it goes out is not
// stdio's: a pipe nobody reads or a closed output must never hold or end the service, whose
// reader thread prints hex dumps under the port-table lock. A line the output cannot take at
// once is lost and counted, and the count is printed before the next line that goes out.
#ifndef SERIALBASIC_CONSOLE_OUTPUT_H
#define SERIALBASIC_CONSOLE_OUTPUT_H

#include <cstdint>
#include <string>

// printf-style, one write for the whole text: lines of several threads never interleave.
void ConsolePrintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void ConsoleWrite(const std::string& text);
// Lines lost so far (for tests and diagnostics).
uint64_t ConsoleLostLines();

#endif
