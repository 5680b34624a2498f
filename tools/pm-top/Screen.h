// The live view on a terminal (ncurses): panes stacked top to bottom, keys to pause, filter
// the messages, move between panes and scroll. Works on anything with a terminfo entry,
// a serial console included: no colours are required.
#ifndef TOOLS_PM_TOP_SCREEN_H
#define TOOLS_PM_TOP_SCREEN_H

#include <array>
#include <string>

#include "TopText.h"

namespace pmtop {

class Screen {
public:
    Screen() = default;
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Takes over the terminal; false with the reason when there is none to take.
    bool Start(std::string& error);

    // One key; false when it asks to quit.
    bool HandleKey(int key);
    // Every key waiting; false when one of them asks to quit.
    bool HandleKeys();

    // Renders the model (or, while paused, what was on screen when the pause began).
    void Draw(const View& v, const std::string& busState);

private:
    enum Pane { kPorts, kBoxes, kRecorder, kMessages, kPaneCount };
    void EditFilter(int key);
    void DrawPane(int& y, int height, Pane pane, const Lines& lines);
    void DrawFooter();

    bool m_started = false;
    bool m_paused = false;
    bool m_editing = false;
    std::string m_filter;
    std::string m_typed;
    int m_focus = kPorts;
    std::array<int, kPaneCount> m_scroll{};
    std::array<Lines, kPaneCount> m_lines;
    std::string m_head;
};

}  // namespace pmtop

#endif
