#include "base/hash.h"
// Engines arrive with the digest work.
void hash_open(hash_context* c, uint32_t a) { c->algorithm = a; }
void hash_write(hash_context*, const void*, uint64_t) {}
void hash_close(hash_context*, uint8_t*) {}
void hash_maphex(uint32_t, const uint8_t*, char* t) { t[0] = 0; }
