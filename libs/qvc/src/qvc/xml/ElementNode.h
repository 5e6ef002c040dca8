#pragma once

#include "qvc/xml/Element.h"
#include "qvc/xml/NodeArena.h"
#include "qvc/xml/QName.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

namespace qvc::xml {

/// A growing list in memory that its owner supplies; only for `Element::Private`. Two words instead of four
/// matter where most lists hold one entry and there are hundreds of thousands.
template <typename T> class NodeList {
public:
  T* begin() noexcept { return _data; }
  T* end() noexcept { return _data + _size; }
  const T* begin() const noexcept { return _data; }
  const T* end() const noexcept { return _data + _size; }
  std::size_t size() const noexcept { return _size; }
  bool full() const noexcept { return _size == _capacity; }
  std::size_t capacity() const noexcept { return _capacity; }

  /// The list must not be full.
  void append(T value) { std::construct_at(_data + _size++, std::move(value)); }
  void erase(std::size_t index) {
    std::move(_data + index + 1, end(), _data + index);
    std::destroy_at(_data + --_size);
  }
  /// Moves the entries into `memory`, which has room for `capacity`, and returns the memory they were in.
  void* relocate(void* memory, std::size_t capacity) noexcept {
    T* const fresh = static_cast<T*>(memory);
    std::uninitialized_move(begin(), end(), fresh);
    std::destroy(begin(), end());
    _capacity = static_cast<std::uint32_t>(capacity);
    return std::exchange(_data, fresh);
  }

  T* data() noexcept { return _data; }

private:
  T* _data = nullptr;
  std::uint32_t _size = 0;
  std::uint32_t _capacity = 0;
};

/// The node behind `Element` handles; only for this folder's sources.
///
/// A node's memory, its lists, texts and names included, is an arena's or, for a node built by hand, its own.
/// Holds are counted in the node: one for each handle and one for each parent that lists it. The parent link
/// counts as none; following it and the end of a node exclude each other by one lock, so that it never leads
/// to a dead node.
struct Element::Private {
  /// Zero-terminated; in the node's memory.
  struct Text {
    const char* data = "";
    std::size_t size = 0;
    std::string_view view() const noexcept { return {data, size}; }
  };
  struct NamedValue {
    const QName* name;
    Text value;
  };

  std::atomic<std::uint32_t> holds{0};
  Type type;
  NodeArena* const arena;      ///< Null for a node built by hand.
  const QName* name = nullptr; ///< Null for the empty name of text nodes.
  std::atomic<Private*> parent{nullptr};
  NodeList<Element> children;
  NodeList<NamedValue> attributes;
  Text value; ///< Text nodes only.

  /// A node on the general heap that nobody holds yet.
  static Private* make(Type type, const QName* name);
  /// A node in an arena, to be counted among those the arena is sealed with.
  static Private* make(NodeArena& arena, Type type);
  /// The same, held once by the caller.
  static Private* makeHeld(NodeArena& arena, Type type);

  void retain() noexcept { holds.fetch_add(1, std::memory_order_relaxed); }
  static void release(Private* node) noexcept;
  /// The parent with a hold for the caller; null when there is none that lives.
  Private* lockParent() noexcept;

  void setText(std::string_view text);
  void addChild(Private* child);
  void addAttribute(const QName* attribute, std::string_view text);
  void reserveChildren(std::size_t count) { reserve(children, count); }
  void reserveAttributes(std::size_t count) { reserve(attributes, count); }
  /// Room for `count` attributes whose texts have `textSize` bytes together, in one piece; only for a node of
  /// an arena that has no attributes yet.
  void reserveAttributes(std::size_t count, std::size_t textSize);
  /// Within the room of the former.
  void addReservedAttribute(const QName* attribute, std::string_view text) noexcept;
  /// Takes the callers' holds on all nodes of `all` and makes them this node's only children.
  void adopt(std::span<Private* const> all);
  /// A name that lives as long as this node.
  const QName* keep(QName kept);

private:
  class Undertaker;

  Private(NodeArena* owner, Type nodeType) noexcept : type(nodeType), arena(owner) {}
  ~Private() = default;

  void* allocate(std::size_t bytes);
  void deallocate(const void* memory) noexcept;
  Text copyOf(std::string_view text);
  template <typename T> void reserve(NodeList<T>& list, std::size_t count);
};

} // namespace qvc::xml
