// Toolkit library of the recorder, desktop build: localised texts.
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

// The byte stuffing, long declared here, has a header of its own.
#include "ByteStuffing.h"

#endif
