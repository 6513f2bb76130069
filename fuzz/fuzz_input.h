// Reading a fuzz input as a stream of choices, and building bus messages
// (ProfileParam arrays, nested to any depth) from it. Everything a message
// points to lives in the builder until the next Reset, so a receiver that
// writes back through a number's pointer (need, listen, check_alive) writes
// into the builder's own storage.
#pragma once

#include <cstdint>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "include/host/core_api.h"

namespace fuzz {

class Input {
 public:
  Input(const uint8_t* data, size_t size) : m_p(data), m_end(data + size) {}

  bool Empty() const { return m_p >= m_end; }
  size_t Left() const { return static_cast<size_t>(m_end - m_p); }

  uint8_t Byte() { return Empty() ? 0 : *m_p++; }

  uint64_t Bits(int bytes) {
    uint64_t v = 0;
    for (int i = 0; i < bytes; i++) v |= static_cast<uint64_t>(Byte()) << (8 * i);
    return v;
  }

  // A text of up to max bytes: a length byte, then that many bytes (zero
  // bytes end it early, as they would any C text).
  std::string Text(size_t max = 255) {
    size_t n = Byte();
    if (n > max) n = max;
    if (n > Left()) n = Left();
    std::string s(reinterpret_cast<const char*>(m_p), n);
    m_p += n;
    return std::string(s.c_str());
  }

  // Raw bytes of up to max, length from two bytes.
  std::string Bytes(size_t max) {
    size_t n = static_cast<size_t>(Bits(2));
    if (n > max) n = max;
    if (n > Left()) n = Left();
    std::string s(reinterpret_cast<const char*>(m_p), n);
    m_p += n;
    return s;
  }

  // Everything that is left, as a text (stops at a zero byte).
  std::string Rest() {
    std::string s(reinterpret_cast<const char*>(m_p), Left());
    m_p = m_end;
    return std::string(s.c_str());
  }

  // One of the list, or a text from the input when the choice falls past it.
  std::string Pick(const std::vector<std::string>& list) {
    uint8_t b = Byte();
    if (!list.empty() && b < 4 * list.size() && b < 240) return list[b % list.size()];
    return Text(64);
  }

 private:
  const uint8_t* m_p;
  const uint8_t* m_end;
};

// Numbers at the edges of their ranges, and raw ones.
inline int32_t Int32(Input* in) {
  static const int32_t kEdges[] = {0, 1, -1, 2, 0x7FFFFFFF, static_cast<int32_t>(0x80000000u), 0x7FFFFFFE,
                                   0xFFFF, 1920, 1080, 25, 1000, 60000, 3600, 86400, 20001, 60030, 60031};
  uint8_t b = in->Byte();
  if (b < 2 * sizeof(kEdges) / sizeof(kEdges[0])) return kEdges[b % (sizeof(kEdges) / sizeof(kEdges[0]))];
  return static_cast<int32_t>(in->Bits(4));
}

inline int64_t Int64(Input* in) {
  static const int64_t kEdges[] = {0,
                                   1,
                                   -1,
                                   INT64_MAX,
                                   INT64_MIN,
                                   1700000000000000LL,      // a time of these years, in microseconds
                                   1700000000040000LL,      // 40 ms later
                                   1699999999000000LL,      // a second earlier
                                   133444915000000000LL,    // a file time of these years, in ticks
                                   253402300799999999LL,    // the last microsecond of year 9999
                                   922337203685477580LL,    // one tenth of the range
                                   0x7FFFFFFFLL,
                                   0x80000000LL,
                                   0xFFFFFFFFLL,
                                   30,
                                   600};
  uint8_t b = in->Byte();
  size_t n = sizeof(kEdges) / sizeof(kEdges[0]);
  if (b < 2 * n) return kEdges[b % n];
  if (b < 2 * n + 16)  // near an edge, wrapping past the ends of the range
    return static_cast<int64_t>(static_cast<uint64_t>(kEdges[b % n]) + static_cast<uint64_t>(static_cast<int8_t>(in->Byte())));
  return static_cast<int64_t>(in->Bits(8));
}

// Builds messages: each element is a type choice, a name (from the names
// given, or text), and a value of that type; a value may be null.
class MessageBuilder {
 public:
  MessageBuilder(std::vector<std::string> names, std::vector<std::string> texts, bool null_names = false)
      : m_names(std::move(names)), m_texts(std::move(texts)), m_null_names(null_names) {}

  void Reset() {
    m_arrays.clear();
    m_strings.clear();
    m_numbers.clear();
    m_buffers.clear();
    m_callbacks.clear();
  }

  // A message of at most max_elems elements at each level, nested at most
  // depth deep. Never null.
  ProfileParam* Build(Input* in, int depth = 3, int max_elems = 12) {
    std::vector<ProfileParam> out;
    int n = 1 + in->Byte() % max_elems;
    for (int i = 0; i < n && !in->Empty(); i++) out.push_back(Element(in, depth, max_elems));
    out.push_back({PP_END, nullptr, nullptr});
    m_arrays.push_back(std::move(out));
    return m_arrays.back().data();
  }

  // A message of one list element carrying the given array.
  ProfileParam* Wrap(const char* name, ProfileParam* list) {
    m_arrays.push_back({{PP_LIST, name, list}, {PP_END, nullptr, nullptr}});
    return m_arrays.back().data();
  }

  const char* Keep(const std::string& s) {
    m_strings.push_back(s);
    return m_strings.back().c_str();
  }
  int64_t* KeepNumber(int64_t v) {
    m_numbers.push_back(v);
    return &m_numbers.back();
  }

  // One element; the type may also be one the bus does not know.
  ProfileParam Element(Input* in, int depth, int max_elems) {
    static const uint32_t kTypes[] = {PP_LIST,  PP_STRING, PP_OBJECT, PP_INT32,  PP_INT64,  PP_CALLBACK,
                                      PP_BUFFER, PP_INT32B, PP_INT64B, PP_STRING, PP_INT32, PP_INT64,
                                      PP_LIST,   6,         11,        0xFFFFFFFFu};
    uint8_t op = in->Byte();
    uint32_t type = kTypes[op & 15];
    bool null_value = (op & 0x70) == 0x70;
    ProfileParam e = {type, nullptr, nullptr};
    if (m_null_names && (op & 0x80) != 0 && (op & 0x70) == 0x60)
      e.name = nullptr;
    else
      e.name = Keep(in->Pick(m_names));
    if (null_value) return e;
    switch (type) {
      case PP_LIST:
        e.value = depth > 0 ? Build(in, depth - 1, max_elems) : nullptr;
        break;
      case PP_STRING:
        e.value = const_cast<char*>(Keep(in->Pick(m_texts)));
        break;
      case PP_OBJECT:
        e.value = &m_object;
        break;
      case PP_INT32:
      case PP_INT32B: {
        int64_t* v = KeepNumber(0);
        *reinterpret_cast<int32_t*>(v) = Int32(in);
        e.value = v;
        break;
      }
      case PP_INT64:
      case PP_INT64B:
        e.value = KeepNumber(Int64(in));
        break;
      case PP_CALLBACK:
        m_callbacks.push_back({this, reinterpret_cast<void*>(&Swallow)});
        e.value = &m_callbacks.back();
        break;
      case PP_BUFFER: {
        m_strings.push_back(in->Bytes(4096));
        std::string& bytes = m_strings.back();
        m_buffers.push_back({bytes.empty() ? nullptr : &bytes[0], static_cast<uint32_t>(bytes.size())});
        e.value = &m_buffers.back();
        break;
      }
      default:
        e.value = m_unknown;  // a type nobody knows: its value is never to be read
        break;
    }
    return e;
  }

 private:
  static void Swallow(void*, ProfileParam*) {}

  std::vector<std::string> m_names;
  std::vector<std::string> m_texts;
  bool m_null_names;
  std::deque<std::vector<ProfileParam>> m_arrays;
  std::deque<std::string> m_strings;
  std::deque<int64_t> m_numbers;
  std::deque<ProfileBuffer> m_buffers;
  std::deque<ProfileCallback> m_callbacks;
  char m_object = 0;
  alignas(8) char m_unknown[16] = {};
};

}  // namespace fuzz
