// The serial reconciliation's decision for one port, old entry against new, as a table: what
// goes, what is queued for creation, what is reported as changed, and in which order.
#include <array>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SerialReconcile.h"

namespace {

struct Entry {
    uint8_t mainFun, subFun = 0, baudrate = 1;
    // Sub-ports behind a box: {place, main, sub, baud}.
    std::vector<std::array<uint8_t, 4>> children = {};
};

SerialPortEntry_t Port(const Entry& e) {
    SerialPortEntry_t port{};
    port.mainFun = e.mainFun;
    port.subFun = e.subFun;
    port.baudrate = e.baudrate;
    for (const auto& c : e.children) {
        port.extend[c[0]].mainFun = c[1];
        port.extend[c[0]].subFun = c[2];
        port.extend[c[0]].baudrate = c[3];
    }
    return port;
}

std::string Describe(const std::vector<SerialPortStep>& plan) {
    static const char* const kNames[] = {"notify-box",     "notify-leaving-box",
                                         "remove-child",   "remove-box",
                                         "remove-for-box", "remove",
                                         "create",         "changed"};
    std::string out;
    for (const SerialPortStep& s : plan) {
        out += out.empty() ? "" : " | ";
        out += kNames[s.kind];
        if (s.kind == SerialPortStep::kRemoveChild) {
            out += "[" + std::to_string(s.index) + "]";
        }
        out += " " + std::to_string(s.target.mainId) + ":" + std::to_string(s.target.subId);
        if (s.logged.mainId != s.target.mainId || s.logged.subId != s.target.subId) {
            out += " (logged " + std::to_string(s.logged.mainId) + ":" +
                   std::to_string(s.logged.subId) + ")";
        }
    }
    return out;
}

// Eight "remove-child[k] m:s" steps for a box whose places hold `children` (others 0:0).
std::string AllChildrenRemoved(const std::vector<std::string>& children) {
    std::string out;
    for (size_t k = 0; k < 8; ++k) {
        out += " | remove-child[" + std::to_string(k) + "] " +
               (k < children.size() ? children[k] : std::string("0:0"));
    }
    return out;
}

struct PlanCase {
    const char* what;
    Entry from, to;
    std::string plan;
};

// Its description, so that a case is named by what it is (ctest names a case by its printed
// parameter; the bytes of the record would hold addresses).
void PrintTo(const PlanCase& c, std::ostream* out) {
    *out << c.what;
}

class SerialPlan : public ::testing::TestWithParam<PlanCase> {};

TEST_P(SerialPlan, StepsInOrder) {
    const PlanCase& c = GetParam();
    EXPECT_EQ(Describe(PlanSerialPort(Port(c.from), Port(c.to))), c.plan) << c.what;
}

const Entry kBox{1, 5, 3, {{0, 7, 1, 3}, {3, 7, 2, 3}}};

INSTANTIATE_TEST_SUITE_P(
    Reconcile, SerialPlan,
    ::testing::Values(
        PlanCase{"an empty port stays empty", {0}, {0}, ""},
        PlanCase{"a peripheral that stays as it was", {7, 1, 3}, {7, 1, 3}, ""},
        PlanCase{"its baud rate alone changed", {7, 1, 3}, {7, 1, 5}, "changed 7:1"},
        PlanCase{
            "another sub id replaces, never switches", {7, 1}, {7, 2}, "remove 7:1 | create 7:2"},
        PlanCase{"another peripheral", {7}, {8, 0, 6}, "remove 7:0 | create 8:0"},
        PlanCase{"a peripheral on an empty port (the old 0:0 is removed too)",
                 {0},
                 {7},
                 "remove 0:0 | create 7:0"},
        PlanCase{"a box that stays: it hears first, nothing else", kBox, kBox, "notify-box 1:0"},
        PlanCase{"a box keeps its place but one child is replaced",
                 kBox,
                 {1, 5, 3, {{0, 7, 1, 3}, {3, 8, 0, 3}}},
                 "notify-box 1:0 | remove-child[3] 7:2 | create 8:0"},
        PlanCase{"a child's baud rate alone changed: reported, not replaced",
                 kBox,
                 {1, 5, 3, {{0, 7, 1, 6}, {3, 7, 2, 3}}},
                 "notify-box 1:0 | changed 7:1"},
        PlanCase{"the box's own baud rate changed: reported with its sub id",
                 kBox,
                 {1, 5, 4, {{0, 7, 1, 3}, {3, 7, 2, 3}}},
                 "notify-box 1:0 | changed 1:5"},
        PlanCase{"a box replaced by a hub box: the new one gets no child entries",
                 kBox,
                 {149, 0, 3, {{1, 7, 3, 3}}},
                 "notify-leaving-box 1:0" + AllChildrenRemoved({"7:1", "0:0", "0:0", "7:2"}) +
                     " | remove-box 1:0 (logged 1:5) | create 149:0"},
        PlanCase{"a box replaced by a plain peripheral",
                 kBox,
                 {7},
                 "notify-leaving-box 1:0" + AllChildrenRemoved({"7:1", "0:0", "0:0", "7:2"}) +
                     " | remove-box 1:0 (logged 1:5) | create 7:0"},
        PlanCase{"a plain peripheral replaced by a box: the box under sub id 0, then all eight",
                 {7},
                 kBox,
                 "remove-for-box 7:0 | create 1:0 | create 7:1 | create 0:0 | create 0:0 | "
                 "create 7:2 | create 0:0 | create 0:0 | create 0:0 | create 0:0"}),
    [](const auto& info) { return std::to_string(info.index); });

}  // namespace
