// Persistent register store of the simulated board: an open-addressing hash table kept in
// a shared memory mapping of <state dir>/regs.bin. Every store_set lands in the page cache at
// once, so the state survives a run that ends by Ctrl-C or SIGKILL; no system call is made per
// access. The table doubles (into a new file renamed over the old one) when half full.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
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
  uint8_t pad[48];
};
static_assert(sizeof(Header) == 64);

struct Entry {
  uint64_t key;
  uint32_t value;
  uint32_t used;       // written last, so a torn insert reads as empty
};
static_assert(sizeof(Entry) == 16);

struct Store {
  std::string path;          // empty: in-memory only (board not attached)
  Header *hdr = nullptr;
  Entry *ent = nullptr;
  size_t mapLen = 0;
  uint32_t mask = 0;
  bool anon = false;
};
Store g;

constexpr uint64_t mix(uint64_t k) {
  k ^= k >> 33;
  k *= 0xff51afd7ed558ccdULL;
  k ^= k >> 33;
  k *= 0xc4ceb3f99f2fe53bULL;
  k ^= k >> 33;
  return k;
}

size_t bytes_for(uint32_t cap) { return sizeof(Header) + (size_t)cap * sizeof(Entry); }

void unmap() {
  if (g.hdr) munmap(g.hdr, g.mapLen);
  g.hdr = nullptr;
  g.ent = nullptr;
  g.mapLen = 0;
  g.mask = 0;
}

void attach_map(void *p, size_t len) {
  g.hdr = static_cast<Header *>(p);
  g.ent = reinterpret_cast<Entry *>(static_cast<char *>(p) + sizeof(Header));
  g.mapLen = len;
  g.mask = g.hdr->capacity - 1;
}

// Creates a fresh, empty table file at `path` with `cap` entries and maps it.
void *create_file(const std::string &path, uint32_t cap, size_t &len) {
  len = bytes_for(cap);
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return nullptr;
  if (ftruncate(fd, (off_t)len) != 0) {
    close(fd);
    return nullptr;
  }
  void *p = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
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
    if (!e.used) {
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

// Maps an existing table file; false when it is missing or damaged.
bool load_file(const std::string &path) {
  int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st {};
  Header h{};
  bool ok = fstat(fd, &st) == 0 && pread(fd, &h, sizeof h, 0) == (ssize_t)sizeof h &&
            std::memcmp(h.magic, kMagic.data(), kMagic.size()) == 0 && h.capacity >= 16 &&
            h.capacity <= kMaxCap && (h.capacity & (h.capacity - 1)) == 0 &&
            (size_t)st.st_size == bytes_for(h.capacity);
  void *p = MAP_FAILED;
  if (ok) p = mmap(nullptr, bytes_for(h.capacity), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (p == MAP_FAILED) {
    if (st.st_size > 0 || !ok)
      std::fprintf(stderr, "kivtool: simulated board: %s is damaged, registers start from reset\n",
                   path.c_str());
    return false;
  }
  attach_map(p, bytes_for(h.capacity));
  uint32_t n = 0;
  for (uint32_t i = 0; i <= g.mask; ++i) n += g.ent[i].used ? 1 : 0;
  g.hdr->count = n;
  return true;
}

// Doubles the table. With a file: build <path>.new, then rename it over the old file so a
// kill during growth leaves the old table intact.
bool grow() {
  uint32_t cap = g.hdr->capacity;
  if (cap >= kMaxCap) return false;
  uint32_t ncap = cap * 2;
  size_t len = 0;
  std::string tmp = g.path + ".new";
  void *p = g.anon ? create_anon(ncap, len) : create_file(tmp, ncap, len);
  if (!p) return false;
  auto *nh = static_cast<Header *>(p);
  auto *ne = reinterpret_cast<Entry *>(static_cast<char *>(p) + sizeof(Header));
  for (uint32_t i = 0; i < cap; ++i) {
    const Entry &e = g.ent[i];
    if (!e.used) continue;
    bool found = false;
    Entry *d = slot_for(ne, ncap - 1, e.key, found);
    d->key = e.key;
    d->value = e.value;
    d->used = 1;
    ++nh->count;
  }
  if (!g.anon && rename(tmp.c_str(), g.path.c_str()) != 0) {
    munmap(p, len);
    unlink(tmp.c_str());
    return false;
  }
  unmap();
  attach_map(p, len);
  return true;
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

}  // namespace

bool store_open(const char *dir) {
  store_close();
  g.path = std::string(dir) + "/regs.bin";
  g.anon = false;
  if (load_file(g.path)) return true;
  size_t len = 0;
  void *p = create_file(g.path, kInitialCap, len);
  if (!p) {
    g.path.clear();
    return false;
  }
  attach_map(p, len);
  return true;
}

void store_close(void) {
  if (g.hdr && !g.anon) msync(g.hdr, g.mapLen, MS_ASYNC);
  unmap();
  g.path.clear();
  g.anon = false;
}

size_t store_count(void) { return g.hdr ? g.hdr->count : 0; }

uint32_t store_get(uint64_t k) {
  if (!g.hdr) return 0;
  bool found = false;
  Entry *e = slot_for(g.ent, g.mask, k, found);
  return found ? e->value : 0;
}

void store_set(uint64_t k, uint32_t value) {
  if (!ensure_open()) return;
  bool found = false;
  Entry *e = slot_for(g.ent, g.mask, k, found);
  if (found) {
    e->value = value;
    return;
  }
  if (value == 0) return;   // absent keys read 0 already
  if ((g.hdr->count + 1) * 2 > g.hdr->capacity) {
    if (grow()) e = slot_for(g.ent, g.mask, k, found);
  }
  if (!e) return;
  e->key = k;
  e->value = value;
  e->used = 1;
  ++g.hdr->count;
}

}  // namespace sim
