#include "src/common/zel_memory/talorn_nn_exception.h"

#include <stdexcept>

namespace zel {

TalornNnException::TalornNnException(const std::string& file, int line) noexcept
    : reserved(0), file(file), line(line) {}

TalornNnException::TalornNnException(const TalornNnException& other) noexcept
    : std::exception(other),
      reserved(other.reserved),
      file(other.file),
      line(other.line),
      stream(other.stream),
      message(other.message) {}

TalornNnException::~TalornNnException() = default;

const char* TalornNnException::what() const noexcept {
    if (!stream) return message.c_str();
    try {
        message = stream->str();
        message += "(";
        message += file;
        message += ":";
        message += std::to_string(line);
        message += ")";
        return message.c_str();
    } catch (const std::length_error&) {
        return "string_length_error";
    } catch (...) {
        // Out of memory while building the text: what() must not throw, and a fixed text is all
        // that can be given.
        return "string_length_error";
    }
}

}  // namespace zel
