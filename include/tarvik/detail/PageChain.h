// detail/PageChain.h: NOT PUBLIC INTERFACE. Included by CommBuffer.h, StringBuffer.h and List.h because
// their inline code walks the chain; applications must not use it, and it may change at any time.
//
// PageChain<P> is the singly linked chain of blocks behind a CommBuffer's pages, a StringBuffer's pages and
// a List's node chunks: a first and a last block, each block's `P* next` leading to the one after it.
// The chain links and unlinks blocks; making and freeing them is its owner's job, so each owner keeps its
// own block layout and allocator. It is used by one thread at a time, with its owner.
#pragma once

namespace tarvik::detail {

template <class P>
class PageChain {
public:
    PageChain() = default;
    PageChain(PageChain const&) = delete;
    PageChain& operator=(PageChain const&) = delete;

    P* first() const { return first_; }
    P* last() const { return last_; }
    bool is_empty() const { return first_ == nullptr; }

    // Links p after the last block.
    void push_back(P* p) {
        p->next = nullptr;
        if (last_) {
            last_->next = p;
        } else {
            first_ = p;
        }
        last_ = p;
    }

    // Links every block of `other` after ours, without walking either chain; `other` ends empty.
    void append(PageChain& other) {
        if (!other.first_) return;
        if (last_) {
            last_->next = other.first_;
        } else {
            first_ = other.first_;
        }
        last_ = other.last_;
        other.first_ = other.last_ = nullptr;
    }

    // Unlinks every block, first to last, handing each to `release` (which may free it); ends empty.
    template <class Release>
    void release_all(Release release) {
        for (P* p = first_; p;) {
            P* next = p->next;
            release(p);
            p = next;
        }
        first_ = last_ = nullptr;
    }

private:
    P* first_ = nullptr;
    P* last_ = nullptr;
};

}  // namespace tarvik::detail
