/*
 * The memory subsystem's exception.
 *
 * Throw sites build it with the path of the header whose code throws and a line number, stream
 * the message into it and throw a copy:
 *
 *     throw TalornNnException("src/common/zel_memory/buffer", 49) << "Offset is bigger ...";
 *
 * what() then reads "<message>(<file>:<line>)". Copies share the message stream, so text streamed
 * into one copy shows in all of them.
 */
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <sstream>
#include <string>

namespace zel {

class TalornNnException : public std::exception {
  public:
    int32_t reserved;  // kept zero; copied with the exception
    std::string file;
    int32_t line;
    std::shared_ptr<std::stringstream> stream;  // created by the first operator<<
    mutable std::string message;                // scratch space of what()

    // A failure inside (out of memory) terminates the process: an exception that cannot be
    // built cannot be reported either.
    TalornNnException(const std::string& file, int line) noexcept;
    TalornNnException(const TalornNnException& other) noexcept;
    ~TalornNnException() override;

    // Appends `value` with ordinary stream formatting.
    template <typename T>
    TalornNnException& operator<<(const T& value) {
        if (!stream) stream = std::make_shared<std::stringstream>();
        *stream << value;
        return *this;
    }

    // "<message>(<file>:<line>)", rebuilt on every call; empty while nothing was streamed;
    // "string_length_error" if the text cannot be built.
    const char* what() const noexcept override;
};

}  // namespace zel
