#include "Control.h"
#include "BusWire.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <optional>
#include <random>

#include "MsgClientManage.h"

namespace pmrecorder {

namespace {

constexpr int kControlModuleId = 3;
constexpr int kResendMs = 500;

std::string MakeNonce() {
    std::random_device device;
    return std::to_string(getpid()) + "-" + std::to_string(device());
}

}  // namespace

bool SendControl(const std::string& command, int timeoutMs, CommandReply& reply,
                 std::string& error) {
    CMsgClientManage client("pm-recorder-ctl", 300000);
    const std::string nonce = MakeNonce();
    std::mutex lock;
    std::optional<std::string> answer;
    client.RegisterHandler(kControlModuleId,
                           static_cast<int>(kControlEvent | Common::kMsgAnswerBit),
                           [&](const char* msg, int len) {
                               if (msg == nullptr || len < static_cast<int>(Common::kMsgHeadSize)) {
                                   return 0;
                               }
                               std::string text(msg + Common::kMsgHeadSize,
                                                static_cast<size_t>(len) - Common::kMsgHeadSize);
                               text = text.substr(0, text.find('\0'));
                               if (text.compare(0, nonce.size() + 1, nonce + " ") == 0) {
                                   std::lock_guard<std::mutex> guard(lock);
                                   answer = text.substr(nonce.size() + 1);
                               }
                               return 0;
                           });
    const std::string request = nonce + " " + command;
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    auto nextSend = Clock::now();
    while (Clock::now() < deadline) {
        if (Clock::now() >= nextSend) {
            client.MSGSendMessage(0, static_cast<int>(kControlEvent), 1, request.c_str(),
                                  static_cast<int>(request.size()), kControlModuleId);
            nextSend += std::chrono::milliseconds(kResendMs);
        }
        client.MSGWaitForEvent(50);
        std::lock_guard<std::mutex> guard(lock);
        if (answer) {
            bool ok = answer->compare(0, 3, "ok ") == 0;
            reply.ok = ok;
            reply.quit = false;
            reply.text = answer->substr(ok ? 3 : std::min<size_t>(answer->size(), 6));
            return true;
        }
    }
    error = "no simulator answered on the bus (is pm-recorder running with this RECORDER_BUS?)";
    return false;
}

}  // namespace pmrecorder
