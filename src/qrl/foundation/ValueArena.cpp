#include "qrl/foundation/ValueArena.h"

#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <mutex>

// Under the address sanitizer, carved memory is marked usable piece by
// piece and unusable again when a piece is released, so that the sanitizer
// sees use after release and overruns inside the blocks as it does on the
// heap.
#if defined(__SANITIZE_ADDRESS__)
#define QRL_ARENA_POISONS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QRL_ARENA_POISONS 1
#endif
#endif
#ifdef QRL_ARENA_POISONS
#include <sanitizer/asan_interface.h>
#define QRL_ARENA_POISON(address, size) ASAN_POISON_MEMORY_REGION(address, size)
#define QRL_ARENA_UNPOISON(address, size) ASAN_UNPOISON_MEMORY_REGION(address, size)
#else
#define QRL_ARENA_POISON(address, size) ((void)(address), (void)(size))
#define QRL_ARENA_UNPOISON(address, size) ((void)(address), (void)(size))
#endif

namespace qrl::detail {

namespace {

// Blocks are mapped from the kernel, all of one size, and kept for the next
// arena when they are released: a program that reads one large document
// after another would otherwise fault every page of its memory in again for
// each one (the C library hands freed heap tops back to the kernel, and
// marking kept blocks lazily freeable costs as much on their next use). At
// most 32 MiB are kept, as the C library's own heap keeps freed memory once
// its thresholds have grown; ValueArena::releaseKeptBlocks() hands them
// back. Mapped memory is committed page by page as it is touched, so a
// small document costs a page or two of its first block.
constexpr size_t kBlockSize = size_t{256} << 10;
constexpr size_t kMostKeptBlocks = 128;  // 32 MiB

struct KeptBlocks {
    std::mutex mutex;
    void* blocks[kMostKeptBlocks];
    size_t count = 0;
};

KeptBlocks& keptBlocks() {
    // Outlives every static that may hold a document. A fork waits for the
    // list to be still, so that the child finds its lock free.
    static KeptBlocks* const kept = [] {
        auto* blocks = new KeptBlocks;
        ::pthread_atfork([] { keptBlocks().mutex.lock(); }, [] { keptBlocks().mutex.unlock(); },
                         [] { keptBlocks().mutex.unlock(); });
        return blocks;
    }();
    return *kept;
}

void* takeBlock() {
    KeptBlocks& kept = keptBlocks();
    {
        const std::lock_guard<std::mutex> lock(kept.mutex);
        if (kept.count > 0) return kept.blocks[--kept.count];
    }
    void* block = ::mmap(nullptr, kBlockSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) throw std::bad_alloc();
    return block;
}

void giveBlock(void* block) noexcept {
    QRL_ARENA_UNPOISON(block, kBlockSize);
    KeptBlocks& kept = keptBlocks();
    {
        const std::lock_guard<std::mutex> lock(kept.mutex);
        if (kept.count < kMostKeptBlocks) {
            kept.blocks[kept.count++] = block;
            return;
        }
    }
    ::munmap(block, kBlockSize);
}

}  // namespace

// Blocks are chained newest first through their first word.
struct ArenaBlocks {
    struct Block {
        Block* next;
    };
    Block* newest = nullptr;
    char* cursor = nullptr;
    char* limit = nullptr;
    // While open (even when hidden by an inner arena) only the opening
    // thread carves and releases pieces: plain counting is enough. Other
    // threads only ever see the arena closed.
    bool open = true;
    size_t openPieces = 0;
    std::atomic<size_t> livePieces{0};
    size_t used = 0;

    void addBlock() {
        auto* block = static_cast<Block*>(takeBlock());
        block->next = newest;
        newest = block;
        cursor = reinterpret_cast<char*>(block) + sizeof(Block);
        limit = reinterpret_cast<char*>(block) + kBlockSize;
        QRL_ARENA_POISON(cursor, kBlockSize - sizeof(Block));
    }

    static void destroy(ArenaBlocks* arena) noexcept {
        Block* block = arena->newest;
        delete arena;
        while (block != nullptr) {
            Block* next = block->next;
            giveBlock(block);
            block = next;
        }
    }

    // Larger pieces (the buffers of long arrays) come from the heap: they
    // are few, and a guess at their size that turns out wrong can be given
    // back at once.
    static constexpr size_t kLargestPiece = 8192;
    static_assert(kLargestPiece + 64 < kBlockSize);
};

namespace {

// Looked at on every allocation of an arena-bound container: the static
// model spares the lookup through the dynamic linker.
__attribute__((tls_model("initial-exec"))) thread_local ArenaBlocks* tOpenArena = nullptr;

inline ArenaBlocks*& prefixOf(void* piece) noexcept {
    return *reinterpret_cast<ArenaBlocks**>(static_cast<char*>(piece) - sizeof(ArenaBlocks*));
}

}  // namespace

void* arenaAllocate(ArenaBlocks* arena, size_t bytes, size_t prefix) {
    if (arena == tOpenArena && bytes <= ArenaBlocks::kLargestPiece) {
        // prefix is a power of two at least as strict as the piece's type.
        auto start = reinterpret_cast<uintptr_t>(arena->cursor);
        start = (start + prefix - 1) & ~(static_cast<uintptr_t>(prefix) - 1);
        const size_t rounded = (bytes + sizeof(void*) - 1) & ~(sizeof(void*) - 1);
        if (start + prefix + rounded > reinterpret_cast<uintptr_t>(arena->limit)) {
            arena->addBlock();
            start = reinterpret_cast<uintptr_t>(arena->cursor);
            start = (start + prefix - 1) & ~(static_cast<uintptr_t>(prefix) - 1);
        }
        void* piece = reinterpret_cast<void*>(start + prefix);
        QRL_ARENA_UNPOISON(reinterpret_cast<void*>(start), prefix + bytes);
        arena->cursor = static_cast<char*>(piece) + rounded;
        arena->used += prefix + rounded;
        ++arena->openPieces;
        prefixOf(piece) = arena;
        return piece;
    }
    void* piece = static_cast<char*>(::operator new(bytes + prefix)) + prefix;
    prefixOf(piece) = nullptr;
    return piece;
}

void arenaRelease(void* piece, size_t bytes, size_t prefix) noexcept {
    ArenaBlocks* const arena = prefixOf(piece);
    if (arena == nullptr) {
        ::operator delete(static_cast<char*>(piece) - prefix);
        return;
    }
    QRL_ARENA_POISON(static_cast<char*>(piece) - prefix, prefix + bytes);
    if (arena->open) {
        --arena->openPieces;  // still being built, so on this thread
    } else if (arena->livePieces.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        ArenaBlocks::destroy(arena);
    }
}

}  // namespace qrl::detail

namespace qrl {

ValueArena::ValueArena() : blocks_(new detail::ArenaBlocks), outer_(detail::tOpenArena) {
    detail::tOpenArena = blocks_;
}

ValueArena::~ValueArena() {
    detail::tOpenArena = outer_;
    blocks_->open = false;
    const size_t pieces = blocks_->openPieces;
    if (pieces == 0) {
        detail::ArenaBlocks::destroy(blocks_);
        return;
    }
    // From here on the pieces may be freed on any thread.
    blocks_->livePieces.store(pieces, std::memory_order_release);
}

size_t ValueArena::releaseKeptBlocks() noexcept {
    detail::KeptBlocks& kept = detail::keptBlocks();
    void* blocks[detail::kMostKeptBlocks];
    size_t count = 0;
    {
        const std::lock_guard<std::mutex> lock(kept.mutex);
        count = kept.count;
        std::copy_n(kept.blocks, count, blocks);
        kept.count = 0;
    }
    for (size_t i = 0; i < count; ++i) ::munmap(blocks[i], detail::kBlockSize);
    return count * detail::kBlockSize;
}

size_t ValueArena::bytesUsed() const noexcept { return blocks_->used; }
size_t ValueArena::bytesReserved() const noexcept {
    size_t blocks = 0;
    for (auto* block = blocks_->newest; block != nullptr; block = block->next) ++blocks;
    return blocks * detail::kBlockSize;
}

}  // namespace qrl
