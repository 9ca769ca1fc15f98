// Captures the lines this library hands to liblog, through liblog's own logger hook.
#pragma once

#include <string>
#include <vector>

namespace zel_test {

struct LogLine {
    int priority;
    std::string tag, message;
};

// While alive, every log line of the process, of every priority, is recorded instead of printed.
// Only one capture may be alive at a time.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::vector<LogLine> lines() const;
    std::vector<std::string> messages() const;  // the texts, in order
    bool contains(const std::string& message) const { return count(message) > 0; }
    size_t count(const std::string& message) const;  // lines that are exactly `message`
    void clear();
};

// The text of a printf-style line: "2.1.17: " + text; of a stream-style line (ZEL_MSG,
// ZelMsgHandler): "2.1.17:   " + text + "\n".
inline std::string Line(const std::string& text) {
    return "2.1.17: " + text;
}
inline std::string MsgLine(const std::string& text) {
    return "2.1.17:   " + text + "\n";
}

}  // namespace zel_test
