#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// The remote key holders of 802.11r VAPs, stored once however many VAPs link to them.
///
/// Purpose:   in a site where everybody knows everybody the links outnumber the VAPs by thousands;
///            a link costs its 8 bytes, and a copy of all of a VAP's links costs nothing.
/// Threading: what is shared is never changed, so that copies may live on other threads.
namespace rrm {

/// A remote key holder of 802.11r fast BSS transition.
struct FbtLink {
  std::string remote_r0_kh_id;   ///< or "*" for the broadcast link
  std::string remote_r1_kh_id;   ///< MAC text, or "ff:ff:ff:ff:ff:ff" for the broadcast link
  std::string remote_r1_kh_key;  ///< key shared with that key holder

  friend bool operator==(const FbtLink&, const FbtLink&) = default;
};

/// A counted reference to an FbtLink that nobody changes any more; as small as a pointer.
class SharedFbtLink {
 public:
  SharedFbtLink() noexcept = default;
  explicit SharedFbtLink(FbtLink link) : link_(new Counted{std::move(link)}) {}
  SharedFbtLink(const SharedFbtLink& other) noexcept : link_(other.link_) {
    if (link_ != nullptr) link_->users.fetch_add(1, std::memory_order_relaxed);
  }
  SharedFbtLink(SharedFbtLink&& other) noexcept : link_(std::exchange(other.link_, nullptr)) {}
  SharedFbtLink& operator=(SharedFbtLink other) noexcept {
    std::swap(link_, other.link_);
    return *this;
  }
  ~SharedFbtLink() {
    if (link_ != nullptr && link_->users.fetch_sub(1, std::memory_order_acq_rel) == 1) delete link_;
  }

  const FbtLink* get() const noexcept { return link_ != nullptr ? &link_->link : nullptr; }
  const FbtLink& operator*() const noexcept { return link_->link; }
  const FbtLink* operator->() const noexcept { return &link_->link; }

  /// A number that an index of links may leave to find its entry again; others may overwrite it.
  std::uint32_t note() const noexcept { return link_->note.load(std::memory_order_relaxed); }
  void set_note(std::uint32_t note) const noexcept {
    link_->note.store(note, std::memory_order_relaxed);
  }

 private:
  struct Counted {
    FbtLink link;
    std::atomic<std::uint32_t> users{1};
    std::atomic<std::uint32_t> note{0};
  };
  Counted* link_ = nullptr;
};

/// The links of one VAP in the order in which they were added.
class FbtLinks {
 public:
  using List = std::vector<SharedFbtLink>;

  FbtLinks() = default;
  FbtLinks(std::initializer_list<FbtLink> links) {
    List list;
    for (const FbtLink& link : links) list.emplace_back(link);
    assign(std::move(list));
  }

  std::size_t size() const noexcept { return list_ ? list_->size() : 0; }
  bool empty() const noexcept { return size() == 0; }
  const FbtLink& operator[](std::size_t index) const noexcept { return *(*list_)[index]; }
  const List& list() const noexcept {
    static const List none;
    return list_ ? *list_ : none;
  }

  /// Replaces all links.
  void assign(List list) {
    list.shrink_to_fit();
    list_ = list.empty() ? nullptr : std::make_shared<const List>(std::move(list));
  }
  /// Copies the list; several are better assigned at once.
  void push_back(FbtLink link) {
    List longer;
    longer.reserve(size() + 1);
    longer.insert(longer.end(), list().begin(), list().end());
    longer.emplace_back(std::move(link));
    assign(std::move(longer));
  }
  void clear() noexcept { list_ = nullptr; }

 private:
  std::shared_ptr<const List> list_;
};

}  // namespace rrm
