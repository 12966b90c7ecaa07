// Persistent register store of the simulated board: an open-addressing hash table kept in
// a shared memory mapping of <state dir>/regs.bin. Every store_set lands in the page cache at
// once, so the state survives a run that ends by Ctrl-C or SIGKILL. The table doubles (into a
// new file renamed over the old one) when half full.
//
// Several processes may share one board. Reads and updates of registers already in the
// table make no system call; inserts and growth take an advisory lock (flock) on the file,
// and a process that finds the table replaced by another one maps the new file.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "sim/sim_board.h"
#include "sim/sim_chip.h"

namespace sim {
namespace {

constexpr std::array<char, 8> kMagic = {'K', 'I', 'V', 'R', 'E', 'G', 'S', '1'};
constexpr uint32_t kInitialCap = 4096;
constexpr uint32_t kMaxCap = 1u << 26;

struct Header {
  char magic[8];
  uint32_t capacity;   // entries, a power of two
  uint32_t count;      // entries in use (recounted on open)
  uint32_t replaced;   // set while this table is copied into a new file, and for good after
  uint8_t pad[44];
};
static_assert(sizeof(Header) == 64);

struct Entry {
  uint64_t key;
  uint32_t value;
  uint32_t used;       // written last, so a torn insert reads as empty
};
static_assert(sizeof(Entry) == 16);

// Fields that other processes read and write through their own mappings.
using Shared = std::atomic_ref<uint32_t>;
static_assert(Shared::required_alignment <= alignof(uint32_t));

struct Store {
  std::string path;          // empty: in-memory only (board not attached)
  int fd = -1;               // the file mapped (its lock serialises inserts and growth)
  Header *hdr = nullptr;
  Entry *ent = nullptr;
  size_t mapLen = 0;
  uint32_t mask = 0;
  bool anon = false;
};
Store g;

bool ensure_open();

constexpr uint64_t mix(uint64_t k) {
  k ^= k >> 33;
  k *= 0xff51afd7ed558ccdULL;
  k ^= k >> 33;
  k *= 0xc4ceb3f99f2fe53bULL;
  k ^= k >> 33;
  return k;
}

size_t bytes_for(uint32_t cap) { return sizeof(Header) + (size_t)cap * sizeof(Entry); }
std::string tmp_path() { return g.path + ".new"; }

void unmap() {
  if (g.hdr) munmap(g.hdr, g.mapLen);
  g.hdr = nullptr;
  g.ent = nullptr;
  g.mapLen = 0;
  g.mask = 0;
}

void close_file() {
  unmap();
  if (g.fd >= 0) close(g.fd);   // drops the lock too
  g.fd = -1;
}

void attach_map(void *p, size_t len) {
  g.hdr = static_cast<Header *>(p);
  g.ent = reinterpret_cast<Entry *>(static_cast<char *>(p) + sizeof(Header));
  g.mapLen = len;
  g.mask = g.hdr->capacity - 1;
}

void lock(int fd) {
  while (flock(fd, LOCK_EX) != 0 && errno == EINTR) {
  }
}

bool same_file(int fd, const std::string &path) {
  struct stat mine {}, now {};
  return fstat(fd, &mine) == 0 && stat(path.c_str(), &now) == 0 && mine.st_ino == now.st_ino &&
         mine.st_dev == now.st_dev;
}

bool replaced() { return g.fd >= 0 && Shared(g.hdr->replaced).load() != 0; }

// Sizes an empty file for `cap` entries and maps it with a fresh header.
void *init_file(int fd, uint32_t cap, size_t &len) {
  len = bytes_for(cap);
  if (ftruncate(fd, (off_t)len) != 0) return nullptr;
  void *p = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) return nullptr;
  auto *h = static_cast<Header *>(p);
  std::memcpy(h->magic, kMagic.data(), kMagic.size());
  h->capacity = cap;
  h->count = 0;
  return p;
}

void *create_anon(uint32_t cap, size_t &len) {
  len = bytes_for(cap);
  void *p = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return nullptr;
  auto *h = static_cast<Header *>(p);
  std::memcpy(h->magic, kMagic.data(), kMagic.size());
  h->capacity = cap;
  return p;
}

Entry *slot_for(Entry *ent, uint32_t mask, uint64_t k, bool &found) {
  uint32_t i = (uint32_t)mix(k) & mask;
  for (uint32_t n = 0; n <= mask; ++n, i = (i + 1) & mask) {
    Entry &e = ent[i];
    if (!Shared(e.used).load(std::memory_order_acquire)) {
      found = false;
      return &e;
    }
    if (e.key == k) {
      found = true;
      return &e;
    }
  }
  found = false;
  return nullptr;   // full (only a damaged file can get here)
}

// Maps the table in fd; false when it is not a register store. `report` names a damaged one.
bool map_file(int fd, bool report) {
  struct stat st {};
  Header h{};
  bool ok = fstat(fd, &st) == 0 && pread(fd, &h, sizeof h, 0) == (ssize_t)sizeof h &&
            std::memcmp(h.magic, kMagic.data(), kMagic.size()) == 0 && h.capacity >= 16 &&
            h.capacity <= kMaxCap && (h.capacity & (h.capacity - 1)) == 0 &&
            (size_t)st.st_size == bytes_for(h.capacity);
  void *p = ok ? mmap(nullptr, bytes_for(h.capacity), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
  if (p == MAP_FAILED) {
    if (report)
      std::fprintf(stderr, "kivtool: simulated board: %s is damaged, registers start from reset\n", g.path.c_str());
    return false;
  }
  attach_map(p, bytes_for(h.capacity));
  return true;
}

// Takes the lock of the file that is regs.bin now. When another process has replaced the
// table, this one maps the new file first (its own writes are all in there: they were made
// under the lock or before the copy began). A path that is gone leaves the table in use.
void lock_current() {
  bool held = false;
  for (int tries = 0; tries < 64 && !held; ++tries) {
    lock(g.fd);
    held = same_file(g.fd, g.path) || access(g.path.c_str(), F_OK) != 0;
    if (held) break;
    const int fd = open(g.path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
      held = true;
      break;
    }
    flock(g.fd, LOCK_UN);
    unmap();
    close(g.fd);
    g.fd = fd;
    if (!map_file(fd, false)) {
      // Not a table (someone else's damage): stay usable in memory for the rest of the run.
      close(fd);
      g.fd = -1;
      g.path.clear();
      ensure_open();
      return;
    }
  }
  if (!held) lock(g.fd);
  // A run killed while copying this table into a new file left the mark and the copy.
  if (Shared(g.hdr->replaced).load() != 0 && same_file(g.fd, g.path)) {
    unlink(tmp_path().c_str());
    Shared(g.hdr->replaced).store(0);
  }
}

void unlock() {
  if (g.fd >= 0) flock(g.fd, LOCK_UN);
}

// Doubles the table (the lock is held). With a file: the entries are copied into
// <path>.new, which is renamed over the old file, so a kill during growth leaves the old
// table intact. The mark set first sends every other process through the lock, where it
// waits for the copy and then maps the new file.
bool grow() {
  const uint32_t cap = g.hdr->capacity;
  if (cap >= kMaxCap) return false;
  const uint32_t ncap = cap * 2;
  size_t len = 0;
  void *p = nullptr;
  int nfd = -1;
  if (g.anon) {
    p = create_anon(ncap, len);
  } else {
    Shared(g.hdr->replaced).store(1);
    nfd = open(tmp_path().c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (nfd >= 0) {
      lock(nfd);
      p = init_file(nfd, ncap, len);
    }
  }
  auto fail = [&] {
    if (p) munmap(p, len);
    if (nfd >= 0) {
      close(nfd);
      unlink(tmp_path().c_str());
    }
    if (!g.anon) Shared(g.hdr->replaced).store(0);
    return false;
  };
  if (!p) return fail();
  auto *nh = static_cast<Header *>(p);
  auto *ne = reinterpret_cast<Entry *>(static_cast<char *>(p) + sizeof(Header));
  for (uint32_t i = 0; i < cap; ++i) {
    Entry &e = g.ent[i];
    if (!Shared(e.used).load(std::memory_order_acquire)) continue;
    bool found = false;
    Entry *d = slot_for(ne, ncap - 1, e.key, found);
    d->key = e.key;
    d->value = Shared(e.value).load();
    d->used = 1;
    ++nh->count;
  }
  if (!g.anon && rename(tmp_path().c_str(), g.path.c_str()) != 0) return fail();
  close_file();
  g.fd = nfd;
  attach_map(p, len);
  return true;
}

// Inserts or updates with the lock held (or in memory).
void set_locked(uint64_t k, uint32_t value) {
  bool found = false;
  Entry *e = slot_for(g.ent, g.mask, k, found);
  if (found) {
    Shared(e->value).store(value);
    return;
  }
  if (value == 0) return;   // absent keys read 0 already
  if ((g.hdr->count + 1) * 2 > g.hdr->capacity) {
    if (grow()) e = slot_for(g.ent, g.mask, k, found);
  }
  if (!e) return;
  e->key = k;
  Shared(e->value).store(value);
  Shared(e->used).store(1, std::memory_order_release);
  ++g.hdr->count;
}

// Without an attached board the store still works, in memory, so units can be exercised alone.
bool ensure_open() {
  if (g.hdr) return true;
  size_t len = 0;
  void *p = create_anon(kInitialCap, len);
  if (!p) return false;
  g.path.clear();
  g.anon = true;
  attach_map(p, len);
  return true;
}

// A fresh table for a store file that holds something else: built aside and renamed over
// it, so that a process still mapping the old file never sees it shrink.
bool replace_damaged() {
  const int nfd = open(tmp_path().c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (nfd < 0) return false;
  lock(nfd);
  size_t len = 0;
  void *p = init_file(nfd, kInitialCap, len);
  if (!p || rename(tmp_path().c_str(), g.path.c_str()) != 0) {
    if (p) munmap(p, len);
    close(nfd);
    unlink(tmp_path().c_str());
    return false;
  }
  close_file();
  g.fd = nfd;
  attach_map(p, len);
  return true;
}

}  // namespace

bool store_open(const char *dir) {
  store_close();
  g.path = std::string(dir) + "/regs.bin";
  g.anon = false;
  // Lock the file that is regs.bin once the lock is ours (another process may rename a new
  // table over it meanwhile).
  for (int tries = 0; tries < 64 && g.fd < 0; ++tries) {
    const int fd = open(g.path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) break;
    lock(fd);
    if (same_file(fd, g.path)) g.fd = fd;
    else close(fd);
  }
  if (g.fd < 0) {
    g.path.clear();
    return false;
  }
  // Holding the lock of the current file, no other process is growing it: a copy lying
  // next to it was left by a run that was killed while growing.
  unlink(tmp_path().c_str());
  struct stat st {};
  bool ok = false;
  if (fstat(g.fd, &st) == 0 && st.st_size == 0) {
    size_t len = 0;
    void *p = init_file(g.fd, kInitialCap, len);
    if (p) attach_map(p, len);
    ok = p != nullptr;
  } else if (map_file(g.fd, true)) {
    uint32_t n = 0;
    for (uint32_t i = 0; i <= g.mask; ++i) n += g.ent[i].used ? 1 : 0;
    g.hdr->count = n;
    Shared(g.hdr->replaced).store(0);
    ok = true;
  } else {
    ok = replace_damaged();
  }
  unlock();
  if (!ok) {
    close_file();
    g.path.clear();
  }
  return ok;
}

void store_close(void) {
  if (g.hdr && !g.anon) msync(g.hdr, g.mapLen, MS_ASYNC);
  close_file();
  g.path.clear();
  g.anon = false;
}

size_t store_count(void) { return g.hdr ? g.hdr->count : 0; }

uint32_t store_get(uint64_t k) {
  if (!g.hdr) return 0;
  if (replaced()) {
    lock_current();
    unlock();
    if (!g.hdr) return 0;
  }
  bool found = false;
  Entry *e = slot_for(g.ent, g.mask, k, found);
  return found ? Shared(e->value).load(std::memory_order_relaxed) : 0;
}

void store_set(uint64_t k, uint32_t value) {
  if (!ensure_open()) return;
  if (g.fd < 0) {
    set_locked(k, value);
    return;
  }
  // An existing register is updated in place without the lock. Growth marks the table
  // before it copies: a write that still finds no mark is in the copy; one that finds it
  // is made again under the lock, in the new table.
  if (!replaced()) {
    bool found = false;
    Entry *e = slot_for(g.ent, g.mask, k, found);
    if (found) Shared(e->value).store(value);
    if ((found || value == 0) && !replaced()) return;
  }
  lock_current();
  if (g.hdr) set_locked(k, value);
  unlock();
}

}  // namespace sim
