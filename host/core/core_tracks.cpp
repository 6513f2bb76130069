// The message bus of the reference host: named tracks, their holders, and
// synchronous delivery of a message to every other holder of the sender's
// track, on the sender's thread.
//
// Called by plug-ins (profile_open / profile_data / profile_close and the
// core-level pair) and by host programs for diagnostics.
//
// How delivery stays safe while holders come and go:
//   - One registry mutex guards the handle table and the tracks. profile_data
//     holds it only to copy the receivers of its track into a small array on
//     its own stack; no lock is held while a callback runs.
//   - Each holder is reference-counted: the registry owns one reference and
//     every copied receiver entry owns one, so a holder closed meanwhile is
//     still valid memory for a sender that copied it.
//   - A delivery raises the holder's `running` count and only then looks at
//     its `closed` flag; profile_close sets `closed` and only then reads
//     `running`. Either the sender sees the close and skips the receiver, or
//     the closer sees the delivery and waits for it to end.
//   - profile_close does not wait for deliveries of that holder that run on
//     its own thread (a callback closing its own handle, maybe several calls
//     deep): every thread keeps a chain of the deliveries it is inside.
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>
#include <atomic>

#include "include/host/core_api.h"

namespace {

enum class HolderKind { kSendOnly, kTrack, kCore };

struct Track;

struct Holder {
  TrackHandle handle = 0;
  Track* track = nullptr;
  HolderKind kind = HolderKind::kSendOnly;
  void* fn = nullptr;
  void* user = nullptr;
  std::atomic<int> refs{1};
  std::atomic<int> running{0};
  std::atomic<bool> closed{false};
};

struct Track {
  std::string name;
  std::vector<Holder*> holders;
};

struct Registry {
  std::mutex mutex;
  std::unordered_map<std::string, Track*> tracks;
  std::unordered_map<TrackHandle, Holder*> handles;
  // Closers wait here for deliveries running on other threads.
  std::mutex close_mutex;
  std::condition_variable close_cv;
};

// Built on first use and never destroyed, so that a plug-in closing its
// tracks from a static destructor at process exit still finds the bus.
Registry& Reg() {
  static Registry* registry = new Registry();
  return *registry;
}

std::atomic<TrackHandle> g_next_handle{1};

// One link per delivery the thread is inside, innermost first; the links
// live on the delivering frames' stacks.
struct DeliveryLink {
  Holder* holder;
  DeliveryLink* outer;
};
thread_local DeliveryLink* t_deliveries = nullptr;

void Release(Holder* holder) {
  if (holder->refs.fetch_sub(1) == 1) delete holder;
}

int DeliveriesOnThisThread(const Holder* holder) {
  int count = 0;
  for (DeliveryLink* link = t_deliveries; link != nullptr; link = link->outer) {
    if (link->holder == holder) ++count;
  }
  return count;
}

// Wakes a closer that may wait for this holder's deliveries to end.
void NotifyCloser(Holder* holder) {
  if (!holder->closed.load()) return;
  Registry& reg = Reg();
  std::lock_guard<std::mutex> lock(reg.close_mutex);
  reg.close_cv.notify_all();
}

// Marks one running delivery for its whole scope, also when a callback
// lets an exception pass through the bus.
class RunningDelivery {
 public:
  explicit RunningDelivery(Holder* holder) : link_{holder, t_deliveries} {
    t_deliveries = &link_;
  }
  ~RunningDelivery() {
    t_deliveries = link_.outer;
    link_.holder->running.fetch_sub(1);
    NotifyCloser(link_.holder);
  }
  RunningDelivery(const RunningDelivery&) = delete;
  RunningDelivery& operator=(const RunningDelivery&) = delete;

 private:
  DeliveryLink link_;
};

void Deliver(Holder* receiver, ProfileParam* params) {
  receiver->running.fetch_add(1);
  if (receiver->closed.load()) {
    receiver->running.fetch_sub(1);
    NotifyCloser(receiver);
    return;
  }
  RunningDelivery running(receiver);
  if (receiver->kind == HolderKind::kTrack) {
    reinterpret_cast<ProfileTrackFn>(receiver->fn)(receiver->user, params);
  } else {
    reinterpret_cast<CoreProfileFn>(receiver->fn)(receiver->user, receiver->handle, 2, params);
  }
}

// The receivers of one message. Up to kInline fit on the sender's stack, so
// the common message costs no heap allocation.
class ReceiverList {
 public:
  static const int kInline = 16;

  ReceiverList() = default;
  ~ReceiverList() {
    for (size_t i = 0; i < count_; ++i) Release(At(i));
  }
  ReceiverList(const ReceiverList&) = delete;
  ReceiverList& operator=(const ReceiverList&) = delete;

  void Add(Holder* holder) {
    holder->refs.fetch_add(1);
    if (count_ < kInline) {
      inline_[count_] = holder;
    } else {
      overflow_.push_back(holder);
    }
    ++count_;
  }
  size_t Count() const { return count_; }
  Holder* At(size_t i) const { return i < kInline ? inline_[i] : overflow_[i - kInline]; }

 private:
  Holder* inline_[kInline];
  std::vector<Holder*> overflow_;
  size_t count_ = 0;
};

// Copies the receivers of the sender's track; false for an unknown handle.
bool CollectReceivers(TrackHandle handle, ReceiverList* out) {
  Registry& reg = Reg();
  std::lock_guard<std::mutex> lock(reg.mutex);
  auto it = reg.handles.find(handle);
  if (it == reg.handles.end()) return false;
  const Holder* sender = it->second;
  for (Holder* holder : sender->track->holders) {
    if (holder != sender && holder->kind != HolderKind::kSendOnly) out->Add(holder);
  }
  return true;
}

void Send(TrackHandle handle, ProfileParam* params, const char* function) {
  if (params == nullptr) {
    fprintf(stderr, "core: %s of handle %llu without a message, nothing sent\n", function,
            (unsigned long long)handle);
    return;
  }
  ReceiverList receivers;
  // A closed or unknown handle sends nothing; senders do not test for it.
  if (!CollectReceivers(handle, &receivers)) return;
  for (size_t i = 0; i < receivers.Count(); ++i) Deliver(receivers.At(i), params);
}

TrackHandle Open(const char* track, HolderKind kind, void* fn, void* user, const char* function,
                 const char* file, int32_t line) {
  if (track == nullptr) {
    fprintf(stderr, "core: %s without a track name from %s:%d, no handle\n", function,
            file != nullptr ? file : "?", (int)line);
    return 0;
  }
  Holder* holder = new Holder();
  holder->kind = fn != nullptr ? kind : HolderKind::kSendOnly;
  holder->fn = fn;
  holder->user = user;
  holder->handle = g_next_handle.fetch_add(1);

  Registry& reg = Reg();
  std::lock_guard<std::mutex> lock(reg.mutex);
  Track*& slot = reg.tracks[track];
  if (slot == nullptr) {
    slot = new Track();
    slot->name = track;
  }
  holder->track = slot;
  slot->holders.push_back(holder);
  reg.handles[holder->handle] = holder;
  return holder->handle;
}

// Takes the holder out of the handle table and its track; null if unknown.
Holder* Detach(TrackHandle handle) {
  Registry& reg = Reg();
  std::lock_guard<std::mutex> lock(reg.mutex);
  auto it = reg.handles.find(handle);
  if (it == reg.handles.end()) return nullptr;
  Holder* holder = it->second;
  reg.handles.erase(it);
  std::vector<Holder*>& holders = holder->track->holders;
  for (size_t i = 0; i < holders.size(); ++i) {
    if (holders[i] == holder) {
      holders[i] = holders.back();
      holders.pop_back();
      break;
    }
  }
  if (holders.empty()) {
    reg.tracks.erase(holder->track->name);
    delete holder->track;
  }
  holder->track = nullptr;
  holder->closed.store(true);
  return holder;
}

void WaitForOtherThreads(Holder* holder) {
  const int own = DeliveriesOnThisThread(holder);
  if (holder->running.load() == own) return;
  Registry& reg = Reg();
  std::unique_lock<std::mutex> lock(reg.close_mutex);
  reg.close_cv.wait(lock, [&] { return holder->running.load() == own; });
}

}  // namespace

extern "C" {

TrackHandle profile_open(const char* track, const ProfileCallback* callback, const char* file, int32_t line) {
  void* fn = callback != nullptr ? callback->fn : nullptr;
  void* user = callback != nullptr ? callback->user : nullptr;
  return Open(track, HolderKind::kTrack, fn, user, "profile_open", file, line);
}

void profile_data(TrackHandle handle, ProfileParam* params, int32_t) { Send(handle, params, "profile_data"); }

int32_t profile_close(TrackHandle handle) {
  Holder* holder = Detach(handle);
  if (holder == nullptr) {
    fprintf(stderr, "core: profile_close of unknown handle %llu\n", (unsigned long long)handle);
    return -1;
  }
  WaitForOtherThreads(holder);
  Release(holder);
  return 0;
}

TrackHandle core_profile_open(const char* track, CoreProfileFn fn, void* user, const char* file, int32_t line) {
  return Open(track, HolderKind::kCore, reinterpret_cast<void*>(fn), user, "core_profile_open", file, line);
}

void core_profile_data(TrackHandle handle, void*, ProfileParam* params) {
  Send(handle, params, "core_profile_data");
}

int32_t core_bus_track_count(void) {
  Registry& reg = Reg();
  std::lock_guard<std::mutex> lock(reg.mutex);
  return (int32_t)reg.tracks.size();
}

int32_t core_bus_holder_count(const char* track) {
  if (track == nullptr) return 0;
  Registry& reg = Reg();
  std::lock_guard<std::mutex> lock(reg.mutex);
  auto it = reg.tracks.find(track);
  return it == reg.tracks.end() ? 0 : (int32_t)it->second->holders.size();
}

}  // extern "C"
