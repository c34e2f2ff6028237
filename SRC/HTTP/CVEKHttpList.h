// CVEKHttpList: objects in a row, linked by two members of theirs: no operation needs memory. An
// object can be in as many lists as it has such pairs.
#ifndef CVEK_HTTP_LIST_H
#define CVEK_HTTP_LIST_H

#include <cstddef>

template <class OBJECT, OBJECT* OBJECT::*NEXT, OBJECT* OBJECT::*PREVIOUS>
class CVEKHttpList {
  public:
    bool IsEmpty() const { return first_ == nullptr; }
    size_t GetSize() const { return size_; }
    // Null: there is none.
    OBJECT* GetFirst() const { return first_; }

    void PushBack(OBJECT& object) {
        object.*NEXT = nullptr;
        object.*PREVIOUS = last_;
        (last_ != nullptr ? last_->*NEXT : first_) = &object;
        last_ = &object;
        ++size_;
    }
    void PushFront(OBJECT& object) {
        object.*PREVIOUS = nullptr;
        object.*NEXT = first_;
        (first_ != nullptr ? first_->*PREVIOUS : last_) = &object;
        first_ = &object;
        ++size_;
    }
    void Remove(OBJECT& object) {
        (object.*PREVIOUS != nullptr ? object.*PREVIOUS->*NEXT : first_) = object.*NEXT;
        (object.*NEXT != nullptr ? object.*NEXT->*PREVIOUS : last_) = object.*PREVIOUS;
        --size_;
    }
    OBJECT& PopFront() {
        OBJECT& object = *first_;
        Remove(object);
        return object;
    }
    // Calls visit(object) for each, which may remove it.
    template <class VISIT>
    void ForEach(VISIT visit) {
        for (OBJECT* object = first_; object != nullptr;) {
            OBJECT* next = object->*NEXT;
            visit(*object);
            object = next;
        }
    }

  private:
    OBJECT* first_ = nullptr;
    OBJECT* last_ = nullptr;
    size_t size_ = 0;
};

#endif
