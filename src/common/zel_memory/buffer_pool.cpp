#include "src/common/zel_memory/buffer_pool.h"

#include <cstdint>
#include <mutex>
#include <vector>

#include "debug/zel_debug.h"

namespace zel {
namespace memory {

using debug::ZONE_MEM;
using debug::ZONE_WAR;

namespace {

constexpr const char kPath[] = "src/common/zel_memory/buffer_pool";

bool SameView(const Buffer& buffer, const ZelBuffer& record) {
    return buffer.va == record.va && buffer.size == record.size && buffer.offset == record.offset;
}

// Users keep the address of their record after deleting its buffer (deleting it twice is an
// ordinary failure case), and every lookup by record reads its fields. So records are recycled
// rather than freed: a retired record stays readable and holds values no buffer has (its own
// address as va, all-ones size and offset). The store is shared by all pools and never destroyed,
// so records stay valid through static destruction; it holds at most the peak number of records
// alive at once.
class RecordStore {
  public:
    UserBufferSptr make(const Buffer& buffer) {
        ZelBuffer* record = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!free_.empty()) {
                record = free_.back();
                free_.pop_back();
            } else {
                // Room for every record made, so that retiring one (inside a deleter) never
                // allocates.
                free_.reserve(created_ + 1);
                record = new ZelBuffer;
                ++created_;
            }
        }
        *record = ZelBuffer{buffer.va, buffer.size, buffer.offset};
        // Should the shared pointer fail to allocate, it retires the record itself.
        return UserBufferSptr(record, [this](ZelBuffer* retired) { retire(retired); });
    }

  private:
    void retire(ZelBuffer* record) {
        *record = ZelBuffer{record, UINT32_MAX, UINT32_MAX};
        std::lock_guard<std::mutex> lock(mutex_);
        free_.push_back(record);
    }

    std::mutex mutex_;
    std::vector<ZelBuffer*> free_;
    size_t created_ = 0;
};

RecordStore& Records() {
    static RecordStore* store = new RecordStore;
    return *store;
}

}  // namespace

UserBufferSptr BufferPool::add_buffer(Buffer::sptr buffer) {
    if (!buffer) throw TalornNnException(kPath, 41) << "Argument is nullptr";
    auto found = buffer_map.find(buffer);
    if (found != buffer_map.end()) {
        ZEL_MSG(ZONE_WAR) << "buffer map already has buffer: " << buffer->to_string() << std::endl;
        return found->second;
    }
    UserBufferSptr record = Records().make(*buffer);
    buffer_map.emplace(std::move(buffer), record);
    return record;
}

void BufferPool::delete_buffer(ZelBuffer* user_buffer) {
    if (user_buffer == nullptr) throw TalornNnException(kPath, 70) << "Argument is nullptr";
    for (auto it = buffer_map.begin(); it != buffer_map.end(); ++it) {
        if (SameView(*it->first, *user_buffer)) {
            ZEL_MSG(ZONE_MEM) << "Found user_buffer :" << it->first->to_string() << std::endl;
            // The pool's reference may be the last one: the deleter runs inside the erase.
            buffer_map.erase(it);
            return;
        }
    }
    ZEL_MSG(ZONE_WAR) << "buffer is not managed by map: " << static_cast<void*>(user_buffer)
                      << std::endl;
    throw TalornNnException(kPath, 80)
            << "buffer is not managed by map: please check local ptr is modified";
}

void BufferPool::delete_buffer(Buffer::sptr buffer) {
    if (!buffer) throw TalornNnException(kPath, 59) << "Argument is nullptr";
    if (buffer_map.find(buffer) == buffer_map.end()) {
        ZEL_MSG(ZONE_WAR) << "buffer is not managed by map: " << buffer->to_string() << std::endl;
    }
    auto found = buffer_map.find(buffer);
    if (found == buffer_map.end()) {
        ZEL_MSG(ZONE_WAR) << "Failed to erase from buffer_map: " << buffer->to_string()
                          << std::endl;
        return;
    }
    buffer_map.erase(found);
}

ZelBuffer* BufferPool::get_buffer(Buffer::sptr buffer) {
    auto found = buffer_map.find(buffer);
    if (found != buffer_map.end()) return found->second.get();
    if (!buffer) {
        // A null buffer has no text to report; it is simply not in the pool.
        ZEL_LOG(debug::ZONE_ERR, debug::PRINT_ALWAYS,
                "* Couldn't find buffer at map: buffer is null\n");
        throw TalornNnException(kPath, 105) << "Couldn't find buffer at map :";
    }
    throw TalornNnException(kPath, 105) << "Couldn't find buffer at map :" << buffer->to_string();
}

Buffer::sptr BufferPool::get_buffer(ZelBuffer* user_buffer) {
    if (user_buffer == nullptr) throw TalornNnException(kPath, 93) << "parameter is null";
    for (const auto& entry : buffer_map) {
        if (SameView(*entry.first, *user_buffer)) return entry.first;
    }
    throw TalornNnException(kPath, 99) << "Not found user_buffer" << user_buffer->offset;
}

std::string BufferPool::to_string() {
    std::string text;
    for (const auto& entry : buffer_map) {
        text += "BUFFER_MAP: ";
        text += entry.first->to_string();
        text += "\n";
    }
    return text;
}

}  // namespace memory
}  // namespace zel
