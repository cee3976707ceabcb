#include "base/bucket.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "base/runtime.h"

namespace {

constexpr uint64_t kFirstCapacity = 64;
constexpr uint64_t kGrowth = 64;

void ensure_storage(bucket* b) {
  if (b->capacity != 0) return;
  b->capacity = kFirstCapacity;
  b->data = static_cast<char*>(runtime_malloc(kFirstCapacity));
  b->data[0] = '\0';
}

void append_bytes(bucket* b, const char* text, uint64_t size) {
  ensure_storage(b);
  uint64_t new_length = b->length + size;
  if (new_length >= b->capacity) {
    b->capacity = new_length + kGrowth;
    b->data = static_cast<char*>(runtime_realloc(b->data, b->capacity));
  }
  memcpy(b->data + b->length, text, size);
  b->length = new_length;
  b->data[new_length] = '\0';
}

// Recursion on value / 10 keeps the most negative value exact: each digit is
// taken from a remainder in -9..9 and never from a negated whole value.
void append_digits(bucket* b, int64_t value) {
  if (value <= -10 || value >= 10) append_digits(b, value / 10);
  int64_t digit = value % 10;
  bucket_push(b, '0' + static_cast<int>(digit < 0 ? -digit : digit));
}

}  // namespace

bucket* bucket_nil(bucket* b) {
  if (b == nullptr) return nullptr;
  b->data = nullptr;
  b->capacity = 0;
  b->length = 0;
  return b;
}

bucket* bucket_push(bucket* b, int byte) {
  if (b == nullptr) return nullptr;
  ensure_storage(b);
  b->data[b->length] = static_cast<char>(byte & 0xff);
  b->length += 1;
  if (b->length == b->capacity) {
    b->capacity = b->length + kGrowth;
    b->data = static_cast<char*>(runtime_realloc(b->data, b->capacity));
  }
  b->data[b->length] = '\0';
  return b;
}

bucket* bucket_append(bucket* b, const char* text) {
  if (b == nullptr) return nullptr;
  if (text == nullptr) return b;
  append_bytes(b, text, strlen(text));
  return b;
}

bucket* bucket_appendv(bucket* b, ...) {
  if (b == nullptr) return nullptr;
  va_list texts;
  va_start(texts, b);
  while (const char* text = va_arg(texts, const char*)) append_bytes(b, text, strlen(text));
  va_end(texts);
  return b;
}

bucket* bucket_append_int(bucket* b, int64_t value) {
  if (b == nullptr) return nullptr;
  if (value < 0) bucket_push(b, '-');
  append_digits(b, value);
  return b;
}

bucket* bucket_drop(bucket* b, uint64_t count) {
  if (b == nullptr) return nullptr;
  if (b->data == nullptr) return b;
  b->length = count >= b->length ? 0 : b->length - count;
  b->data[b->length] = '\0';
  return b;
}

char* bucket_cstring(bucket* b) {
  if (b == nullptr) return nullptr;
  ensure_storage(b);
  return b->data;
}

void bucket_release(bucket* b) {
  if (b == nullptr || b->data == nullptr) return;
  free(b->data);
  bucket_nil(b);
}
