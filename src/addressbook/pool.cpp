// Fixed-size slot pools for the address book's small objects. Freed slots
// go back on a free list and are reused; blocks are kept for the life of
// the process (the table's size is bounded by its entry limit).
//
// Under AddressSanitizer the pools step aside so that a use of a freed
// entry or member is still reported.
#include <cstdlib>
#include <new>
#include <vector>

#include "addressbook/address_book.h"

#if defined(__SANITIZE_ADDRESS__)
#define SMSGW_NO_POOL 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SMSGW_NO_POOL 1
#endif
#endif

namespace smsgw {

namespace {

template <typename T>
class SlotPool {
  public:
    // Never destroyed: a slot may be freed during static destruction.
    static SlotPool& instance() {
        alignas(SlotPool) static unsigned char storage[sizeof(SlotPool)];
        static SlotPool* pool = ::new (storage) SlotPool;
        return *pool;
    }

    void* take() {
        if (!free_) grow();
        Slot* s = free_;
        free_ = s->next;
        return s;
    }

    void give(void* p) noexcept {
        Slot* s = static_cast<Slot*>(p);
        s->next = free_;
        free_ = s;
    }

  private:
    union Slot {
        Slot* next;
        alignas(T) unsigned char bytes[sizeof(T)];
    };
    static constexpr std::size_t kSlotsPerBlock = 512;

    void grow() {
        void* block = std::malloc(sizeof(Slot) * kSlotsPerBlock);
        if (!block) throw std::bad_alloc();
        blocks_.push_back(block);
        Slot* slots = static_cast<Slot*>(block);
        for (std::size_t i = kSlotsPerBlock; i-- > 0;) {
            slots[i].next = free_;
            free_ = &slots[i];
        }
    }

    Slot* free_ = nullptr;
    std::vector<void*> blocks_;  // kept: slots may be live until exit
};

template <typename T>
void* pooled_new(std::size_t size) {
#ifdef SMSGW_NO_POOL
    return ::operator new(size);
#else
    if (size != sizeof(T)) return ::operator new(size);
    return SlotPool<T>::instance().take();
#endif
}

template <typename T>
void pooled_delete(void* p, std::size_t size) noexcept {
    if (!p) return;
#ifdef SMSGW_NO_POOL
    (void)size;
    ::operator delete(p);
#else
    if (size != sizeof(T)) {
        ::operator delete(p);
        return;
    }
    SlotPool<T>::instance().give(p);
#endif
}

}  // namespace

void* Entry::operator new(std::size_t size) {
    return pooled_new<Entry>(size);
}
void Entry::operator delete(void* p, std::size_t size) noexcept {
    pooled_delete<Entry>(p, size);
}
void* TrieNode::operator new(std::size_t size) {
    return pooled_new<TrieNode>(size);
}
void TrieNode::operator delete(void* p, std::size_t size) noexcept {
    pooled_delete<TrieNode>(p, size);
}
void* GroupMember::operator new(std::size_t size) {
    return pooled_new<GroupMember>(size);
}
void GroupMember::operator delete(void* p, std::size_t size) noexcept {
    pooled_delete<GroupMember>(p, size);
}

}  // namespace smsgw
