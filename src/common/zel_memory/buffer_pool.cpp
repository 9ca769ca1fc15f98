#include "src/common/zel_memory/buffer_pool.h"

#include <cstddef>
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
//
// Each record comes with room for its shared pointer's control block, so that a pooled buffer
// costs no allocation once the store has as many slots as buffers are alive at once.
class RecordStore {
  public:
    UserBufferSptr make(const Buffer& buffer) {
        Slot* slot = take();
        slot->record = ZelBuffer{buffer.va, buffer.size, buffer.offset};
        return UserBufferSptr(&slot->record, Retire(), SlotAllocator<ZelBuffer>{slot, this});
    }

  private:
    struct Slot {
        ZelBuffer record;
        alignas(std::max_align_t) unsigned char control_block[64];
    };

    // The last reference marks the record retired; its slot returns to the store only once the
    // control block is gone too (weak references may outlive the record's use).
    struct Retire {
        void operator()(ZelBuffer* record) const {
            *record = ZelBuffer{record, UINT32_MAX, UINT32_MAX};
        }
    };

    template <typename T>
    struct SlotAllocator {
        using value_type = T;
        Slot* slot;
        RecordStore* store;
        template <typename U>
        SlotAllocator(const SlotAllocator<U>& other) : slot(other.slot), store(other.store) {}
        SlotAllocator(Slot* slot, RecordStore* store) : slot(slot), store(store) {}
        T* allocate(size_t) {
            static_assert(sizeof(T) <= sizeof(Slot::control_block) &&
                                  alignof(T) <= alignof(std::max_align_t),
                          "a control block fits its slot");
            return reinterpret_cast<T*>(slot->control_block);
        }
        void deallocate(T*, size_t) { store->give_back(slot); }
        template <typename U>
        bool operator==(const SlotAllocator<U>& other) const {
            return slot == other.slot;
        }
        template <typename U>
        bool operator!=(const SlotAllocator<U>& other) const {
            return slot != other.slot;
        }
    };

    // Slots given back on a thread are kept there for its next takes, a few at a time, so that a
    // steady create/delete cycle never touches the store's lock. The cache is plain data, safe to
    // read at any point of the thread's exit; its slots go back to the store when the thread ends.
    static constexpr size_t kCachedSlots = 8;
    struct ThreadSlots {
        Slot* slots[kCachedSlots];
        size_t count;
        bool open;    // the flush at thread exit is arranged
        bool closed;  // and has run: every slot goes to the store from now on
    };
    struct FlushAtExit {
        ~FlushAtExit();
    };
    static thread_local ThreadSlots cache_;
    static thread_local FlushAtExit flush_;

    Slot* take() {
        ThreadSlots& cache = cache_;
        if (cache.count > 0) return cache.slots[--cache.count];
        if (!cache.open && !cache.closed) {
            static_cast<void>(&flush_);  // constructs it, so that it runs when the thread ends
            cache.open = true;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (!free_.empty()) {
            Slot* slot = free_.back();
            free_.pop_back();
            return slot;
        }
        // Room for every slot made, so that giving one back (inside a release) never allocates.
        free_.reserve(created_ + 1);
        Slot* slot = new Slot;
        ++created_;
        return slot;
    }

    void give_back(Slot* slot) {
        ThreadSlots& cache = cache_;
        if (cache.open && cache.count < kCachedSlots) {
            cache.slots[cache.count++] = slot;
            return;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        free_.push_back(slot);
    }

    void give_back_all(ThreadSlots& cache) {
        std::lock_guard<std::mutex> lock(mutex_);
        while (cache.count > 0)
            free_.push_back(cache.slots[--cache.count]);
    }

    std::mutex mutex_;
    std::vector<Slot*> free_;
    size_t created_ = 0;
};

RecordStore& Records() {
    static RecordStore* store = new RecordStore;
    return *store;
}

thread_local RecordStore::ThreadSlots RecordStore::cache_;
thread_local RecordStore::FlushAtExit RecordStore::flush_;

RecordStore::FlushAtExit::~FlushAtExit() {
    cache_.open = false;
    cache_.closed = true;
    Records().give_back_all(cache_);
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
