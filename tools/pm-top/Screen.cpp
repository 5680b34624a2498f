#include "Screen.h"

#include <curses.h>

#include <algorithm>
#include <cstdio>

namespace pmtop {

namespace {

constexpr const char* kPaneTitles[] = {"Ports", "Extension boxes", "Recorder", "Messages"};
constexpr int kMessageLines = 400;
constexpr int kEscape = 27;

bool IsEnter(int key) {
    return key == '\n' || key == '\r' || key == KEY_ENTER;
}

bool IsBackspace(int key) {
    return key == KEY_BACKSPACE || key == 127 || key == 8;
}

}  // namespace

Screen::~Screen() {
    if (m_started) {
        endwin();
    }
}

bool Screen::Start(std::string& error) {
    // newterm, unlike initscr, reports an unusable terminal instead of ending the program.
    if (newterm(nullptr, stdout, stdin) == nullptr) {
        error = "cannot use this terminal (TERM is unset or unknown); try --once";
        return false;
    }
    m_started = true;
    cbreak();
    noecho();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(25);
    curs_set(0);
    return true;
}

bool Screen::HandleKeys() {
    for (int key = getch(); key != ERR; key = getch()) {
        if (!HandleKey(key)) {
            return false;
        }
    }
    return true;
}

void Screen::EditFilter(int key) {
    if (IsEnter(key)) {
        m_filter = m_typed;
        m_editing = false;
        m_scroll[kMessages] = 0;
    } else if (key == kEscape) {
        m_editing = false;
    } else if (IsBackspace(key)) {
        if (!m_typed.empty()) {
            m_typed.pop_back();
        }
    } else if (key >= 32 && key < 127 && m_typed.size() < 40) {
        m_typed.push_back(static_cast<char>(key));
    }
}

bool Screen::HandleKey(int key) {
    if (m_editing) {
        EditFilter(key);
        return true;
    }
    switch (key) {
        case 'q':
        case 'Q':
            return false;
        case 'p':
        case 'P':
            m_paused = !m_paused;
            break;
        case '/':
            m_editing = true;
            m_typed = m_filter;
            break;
        case '\t':
            m_focus = (m_focus + 1) % kPaneCount;
            break;
        case KEY_BTAB:
            m_focus = (m_focus + kPaneCount - 1) % kPaneCount;
            break;
        case KEY_UP:
        case KEY_DOWN:
        case KEY_PPAGE:
        case KEY_NPAGE: {
            const int step = key == KEY_UP || key == KEY_DOWN ? 1 : 10;
            const bool down = key == KEY_DOWN || key == KEY_NPAGE;
            // The message pane counts from its tail, the others from their top.
            const bool further = m_focus == kMessages ? !down : down;
            int& scroll = m_scroll[m_focus];
            scroll = std::max(0, scroll + (further ? step : -step));
            break;
        }
        default:
            break;  // KEY_RESIZE included: the next Draw lays the panes out anew
    }
    return true;
}

void Screen::DrawPane(int& y, int height, Pane pane, const Lines& lines) {
    if (height <= 0 || y >= LINES - 1) {
        return;
    }
    attrset(m_focus == pane ? A_REVERSE | A_BOLD : A_BOLD);
    mvhline(y, 0, '-', COLS);
    mvprintw(y, 2, " %s ", kPaneTitles[pane]);
    attrset(A_NORMAL);
    ++y;
    const int rows = std::min(height - 1, LINES - 1 - y);
    const int total = static_cast<int>(lines.size());
    const int hidden = std::max(0, total - rows);
    int& scroll = m_scroll[pane];
    scroll = std::min(scroll, hidden);
    // The message pane follows its newest line unless scrolled back.
    const int start = pane == kMessages ? hidden - scroll : scroll;
    for (int i = 0; i < rows && start + i < total; ++i) {
        mvaddnstr(y + i, 0, lines[start + i].c_str(), COLS);
    }
    y += std::max(rows, 0);
}

void Screen::DrawFooter() {
    attrset(A_REVERSE);
    mvhline(LINES - 1, 0, ' ', COLS);
    if (m_editing) {
        mvprintw(LINES - 1, 0, "filter (id or name, Enter applies, Esc cancels): %s_",
                 m_typed.c_str());
    } else {
        mvaddnstr(LINES - 1, 0,
                  "q quit  p pause  / filter messages  Tab next pane  Up/Down/PgUp/PgDn scroll",
                  COLS);
    }
    attrset(A_NORMAL);
}

void Screen::Draw(const View& v, const std::string& busState) {
    if (!m_paused) {
        m_lines[kPorts] = PortLines(v);
        m_lines[kBoxes] = BoxLines(v);
        m_lines[kRecorder] = RecorderLines(v);
        m_lines[kMessages] = MessageLines(v.model, m_filter, kMessageLines);
        char head[256];
        snprintf(head, sizeof head, "pm-top   bus: %s   messages: %llu", busState.c_str(),
                 static_cast<unsigned long long>(v.model.MessageCount()));
        m_head = head;
    }
    erase();
    std::string head = m_head;
    if (m_paused) {
        head += "   [PAUSED]";
    }
    if (!m_filter.empty()) {
        head += "   filter: " + m_filter;
    }
    attrset(A_BOLD);
    mvaddnstr(0, 0, head.c_str(), COLS);
    attrset(A_NORMAL);
    // Rows for the fixed panes first; the messages get what is left, at least four.
    const int avail = LINES - 2;
    const int recorder = static_cast<int>(m_lines[kRecorder].size()) + 1;
    const int boxes = std::min(static_cast<int>(m_lines[kBoxes].size()) + 1, 7);
    const int ports =
        std::clamp(avail - recorder - boxes - 5, 2, static_cast<int>(m_lines[kPorts].size()) + 1);
    const int messages = avail - recorder - boxes - ports;
    int y = 1;
    DrawPane(y, ports, kPorts, m_lines[kPorts]);
    DrawPane(y, boxes, kBoxes, m_lines[kBoxes]);
    DrawPane(y, recorder, kRecorder, m_lines[kRecorder]);
    DrawPane(y, messages, kMessages, m_lines[kMessages]);
    DrawFooter();
    refresh();
}

}  // namespace pmtop
