// A text or a question on its way to the JavaScript thread, and the list in which it waits there. Texts hold
// personal data: they are wiped wherever they end.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <utility>

#include "binding/answer_box.hpp"
#include "core/session/read_session.hpp"
#include "util/memory.h"
#include "util/secret.hpp"

namespace tq {

class Message;
struct EndMessage {
  void operator()(Message* message) const;
};
using OwnMessage = std::unique_ptr<Message, EndMessage>;

class Message {
 public:
  // With zeroed room for a text. Null when there is no memory.
  static OwnMessage create(size_t capacity, QuestionNumber question = 0) {
    void* room = tq_mem_malloc(sizeof(Message) + capacity);
    return OwnMessage(room == nullptr ? nullptr : new (room) Message(capacity, question));
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  std::span<char> room() { return {reinterpret_cast<char*>(this + 1), capacity_}; }
  const char* text() const { return reinterpret_cast<const char*>(this + 1); }
  QuestionNumber question() const { return question_; }
  // The number of the read that sent this, 0 when none did.
  uint64_t read() const { return read_; }
  // False when that read has been superseded meanwhile.
  bool is_current() const { return read_ == 0 || is_newest_read(read_); }

 private:
  friend struct EndMessage;
  friend class MessageQueue;
  Message(size_t capacity, QuestionNumber question)
      : capacity_(capacity), question_(question), read_(current_read_number()) {
    std::memset(room().data(), 0, capacity);
  }
  ~Message() { wipe(room().data(), capacity_); }

  size_t capacity_;
  QuestionNumber question_;
  uint64_t read_;
  Message* next_ = nullptr;
};

inline void EndMessage::operator()(Message* message) const {
  message->~Message();
  tq_mem_free(message);
}

// First in, first out. Not synchronised.
class MessageQueue {
 public:
  MessageQueue() = default;
  ~MessageQueue() { clear(); }
  MessageQueue(const MessageQueue&) = delete;
  MessageQueue& operator=(const MessageQueue&) = delete;

  bool empty() const { return first_ == nullptr; }

  void push(OwnMessage message) {
    Message** end = &first_;
    while (*end != nullptr) end = &(*end)->next_;
    *end = message.release();
  }

  // Null when there is none.
  OwnMessage pop() { return withdraw(first_); }

  // Takes this message out of the list; null when it has been taken already.
  OwnMessage withdraw(const Message* message) {
    for (Message** link = &first_; *link != nullptr; link = &(*link)->next_) {
      if (*link == message) return OwnMessage(std::exchange(*link, (*link)->next_));
    }
    return nullptr;
  }

  // Who waits for an answer to one of them need not wait any longer.
  void clear() {
    while (const OwnMessage message = pop()) drop_question(message->question());
  }

 private:
  Message* first_ = nullptr;
};

}  // namespace tq
