// Toolkit library of the recorder, desktop build: localised texts and the extension box's
// byte stuffing.
#ifndef PLATFORM_GUI_TOOLKIT_H
#define PLATFORM_GUI_TOOLKIT_H

// The localised text of `id` from the language table "/usr/local/cfg/lang/<LANGUAGE>.json"
// (LANGUAGE from SYSTEM_CONFIG, default "en"; the table is one JSON object id -> text), or
// `id` itself when there is no entry. The pointer stays valid for the life of the process.
// It follows a language switch by itself: a lookup after SYSTEM_CONFIG or the table changed
// reads the table again. The two leading arguments are the recorder GUI's context and are
// not used. Any thread.
const char* GuiTKGetText(const void* context, const void* widget, const char* id);

// Test hook, not a toolkit interface of the recorder: the next lookup loads the table again
// even if nothing seems changed. Texts handed out before stay valid.
void GuiTKResetForTest();

// Byte stuffing of the extension box frame. A frame starts with 0x7E and ends with 0x7F;
// these two marks stay as they are. Inside the frame 0x7D is sent as 7D 5D, 0x7E as 7D 5E and
// 0x7F as 7D 5F.
//
// serial_transfrom_7e7f: stuffs the `len`-byte frame `in` (marks included) into `out`, which
// must hold 2 * len bytes. Returns the stuffed length (> 0), or -1 when `in` is not a frame
// (shorter than 2 bytes, or without its marks).
int serial_transfrom_7e7f(const unsigned char* in, unsigned char* out, int len);

// serial_retransfrom_7e7f: the exact inverse. `*state` is 0 before the first piece of a frame
// and carries the position between pieces, so a frame may be fed in pieces; `out` receives
// at most `len` bytes per call. Returns the number of bytes written for this piece (the
// marks are kept in the output), or -1 on a malformed frame: the first piece does not begin
// with 0x7E, a 0x7E or a byte after the end mark appears inside, or an escape is not
// followed by 5D, 5E or 5F (a dangling escape before the end mark). Returns 0 for an empty
// piece. After the end mark *state is SERIAL_UNSTUFF_DONE.
enum {
    SERIAL_UNSTUFF_START = 0,
    SERIAL_UNSTUFF_BODY = 1,
    SERIAL_UNSTUFF_ESCAPE = 2,
    SERIAL_UNSTUFF_DONE = 3,
};
int serial_retransfrom_7e7f(const unsigned char* in, unsigned char* out, int len, int* state);

#endif
