#include "qvc/xml/ElementNode.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace qvc::xml {

namespace {

/// Held while a parent link is followed and while nodes die.
std::mutex& lifeMutex() {
  static std::mutex mutex;
  return mutex;
}

} // namespace

/// Frees a node and what below it is held by nobody else.
class Element::Private::Undertaker {
public:
  ~Undertaker() { flush(nullptr); }

  void bury(Private* node) noexcept {
    for (Element& child : node->children) {
      Private* const below = std::exchange(child._node, nullptr);
      if (below->parent.load(std::memory_order_relaxed) == node)
        below->parent.store(nullptr, std::memory_order_relaxed);
      // With a single hold there is no one left who could take another, so the locked instruction can be
      // spared.
      if (below->holds.load(std::memory_order_acquire) == 1 ||
          below->holds.fetch_sub(1, std::memory_order_acq_rel) == 1)
        bury(below);
    }
    NodeArena* const owner = node->arena;
    if (owner == nullptr) {
      delete node->name;
      for (const NamedValue& attribute : node->attributes) {
        delete attribute.name;
        node->deallocate(attribute.value.size != 0 ? attribute.value.data : nullptr);
      }
      node->deallocate(node->value.size != 0 ? node->value.data : nullptr);
      node->deallocate(node->attributes.data());
      node->deallocate(node->children.data());
      node->~Private();
      std::free(node);
      return;
    }
    if (owner != _arena)
      flush(owner);
    node->~Private();
    ++_count;
  }

private:
  void flush(NodeArena* next) noexcept {
    if (_arena != nullptr)
      _arena->release(_count);
    _arena = next;
    _count = 0;
  }

  NodeArena* _arena = nullptr;
  std::size_t _count = 0;
};

Element::Private* Element::Private::make(Type type, const QName* name) {
  void* const memory = std::malloc(sizeof(Private));
  if (memory == nullptr)
    throw std::bad_alloc();
  auto* const node = new (memory) Private(nullptr, type);
  node->name = name;
  return node;
}

Element::Private* Element::Private::make(NodeArena& arena, Type type) {
  return new (arena.allocate(sizeof(Private))) Private(&arena, type);
}

Element::Private* Element::Private::makeHeld(NodeArena& arena, Type type) {
  Private* const node = make(arena, type);
  node->holds.store(1, std::memory_order_relaxed);
  return node;
}

void Element::Private::release(Private* node) noexcept {
  if (node->holds.fetch_sub(1, std::memory_order_acq_rel) != 1)
    return;
  const std::lock_guard lock(lifeMutex());
  Undertaker().bury(node);
}

Element::Private* Element::Private::lockParent() noexcept {
  const std::lock_guard lock(lifeMutex());
  Private* const found = parent.load(std::memory_order_relaxed);
  if (found == nullptr)
    return nullptr;
  // A parent without holds waits for the lock to be buried.
  std::uint32_t count = found->holds.load(std::memory_order_relaxed);
  while (count != 0) {
    if (found->holds.compare_exchange_weak(count, count + 1, std::memory_order_relaxed))
      return found;
  }
  return nullptr;
}

void Element::Private::setText(std::string_view text) {
  const Text before = std::exchange(value, copyOf(text));
  if (before.size != 0)
    deallocate(before.data);
}

void Element::Private::addChild(Private* child) {
  if (children.full())
    reserve(children, std::max<std::size_t>(1, children.capacity() * 2));
  child->retain();
  child->parent.store(this, std::memory_order_relaxed);
  children.append(Element(child));
}

void Element::Private::addAttribute(const QName* attribute, std::string_view text) {
  if (attributes.full())
    reserve(attributes, std::max<std::size_t>(1, attributes.capacity() * 2));
  attributes.append({attribute, copyOf(text)});
}

void Element::Private::reserveAttributes(std::size_t count, std::size_t textSize) {
  // Each text has its zero byte.
  attributes.relocate(arena->allocate(count * (sizeof(NamedValue) + 1) + textSize), count);
}

void Element::Private::addReservedAttribute(const QName* attribute, std::string_view text) noexcept {
  char* memory = reinterpret_cast<char*>(attributes.data() + attributes.capacity());
  if (attributes.size() != 0) {
    const Text& before = (attributes.end() - 1)->value;
    memory = const_cast<char*>(before.data) + before.size + 1;
  }
  std::memcpy(memory, text.data(), text.size());
  memory[text.size()] = '\0';
  attributes.append({attribute, {memory, text.size()}});
}

void Element::Private::adopt(std::span<Private* const> all) {
  reserveChildren(all.size());
  for (Private* const child : all) {
    child->parent.store(this, std::memory_order_relaxed);
    children.append(Element(child));
  }
}

const QName* Element::Private::keep(QName kept) {
  return arena != nullptr ? arena->keep(std::move(kept)) : new QName(std::move(kept));
}

void* Element::Private::allocate(std::size_t bytes) {
  if (arena != nullptr)
    return arena->allocate(bytes);
  void* const memory = std::malloc(bytes);
  if (memory == nullptr)
    throw std::bad_alloc();
  return memory;
}

void Element::Private::deallocate(const void* memory) noexcept {
  if (arena == nullptr)
    std::free(const_cast<void*>(memory));
}

Element::Private::Text Element::Private::copyOf(std::string_view text) {
  if (text.empty())
    return {};
  char* const memory = static_cast<char*>(allocate(text.size() + 1));
  std::memcpy(memory, text.data(), text.size());
  memory[text.size()] = '\0';
  return {memory, text.size()};
}

template <typename T> void Element::Private::reserve(NodeList<T>& list, std::size_t count) {
  if (count > list.capacity())
    deallocate(list.relocate(allocate(count * sizeof(T)), count));
}

template void Element::Private::reserve(NodeList<Element>&, std::size_t);
template void Element::Private::reserve(NodeList<NamedValue>&, std::size_t);

} // namespace qvc::xml
