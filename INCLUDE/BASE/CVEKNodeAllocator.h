// CVEKNodeAllocator: an allocator for std::list, std::map and std::multimap that keeps the nodes
// which a container gives back for the container's next ones. A container that grows and shrinks
// all the time so asks for memory only while it reaches a new peak; all of it is returned with the
// container, or where container.get_allocator().Trim() says so.
//
// Each container has nodes of its own, which the container's own rules for threads cover. Elements
// cannot be spliced between two containers.
#ifndef CVEK_NODE_ALLOCATOR_H
#define CVEK_NODE_ALLOCATOR_H

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

// The free nodes, all of one size.
class CVEKFreeNodes {
  public:
    CVEKFreeNodes() = default;
    ~CVEKFreeNodes() { Trim(); }
    CVEKFreeNodes(const CVEKFreeNodes&) = delete;
    CVEKFreeNodes& operator=(const CVEKFreeNodes&) = delete;

    // Memory of `size` bytes; the first size asked for is that of the nodes.
    void* Take(size_t size) {
        nodeSize_ = nodeSize_ == 0 ? size : nodeSize_;
        if (size != nodeSize_ || first_ == nullptr) {
            return ::operator new(size);
        }
        return std::exchange(first_, first_->next);
    }

    void Return(void* memory, size_t size) noexcept {
        if (size == nodeSize_) {
            first_ = new (memory) Node{first_};
        } else {
            ::operator delete(memory);
        }
    }

    // Returns the free nodes to the system.
    void Trim() noexcept {
        while (first_ != nullptr) {
            ::operator delete(std::exchange(first_, first_->next));
        }
    }

  private:
    struct Node {
        Node* next;
    };

    Node* first_ = nullptr;
    size_t nodeSize_ = 0;
};

template <class T>
class CVEKNodeAllocator {
  public:
    using value_type = T;
    using propagate_on_container_move_assignment = std::true_type;
    using propagate_on_container_swap = std::true_type;

    CVEKNodeAllocator() : nodes_(std::make_shared<CVEKFreeNodes>()) {}
    // Copied, not moved: a container that was moved from goes on working.
    CVEKNodeAllocator(const CVEKNodeAllocator&) = default;
    CVEKNodeAllocator& operator=(const CVEKNodeAllocator&) = default;
    // The same container's, for another type.
    template <class OTHER>
    CVEKNodeAllocator(const CVEKNodeAllocator<OTHER>& other)  // NOLINT: allocators convert
        : nodes_(other.nodes_) {}
    // A copy of the container has nodes of its own.
    CVEKNodeAllocator select_on_container_copy_construction() const { return {}; }

    T* allocate(size_t count) {
        static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__ && sizeof(T) >= sizeof(void*));
        return static_cast<T*>(nodes_->Take(count * sizeof(T)));
    }
    void deallocate(T* memory, size_t count) noexcept { nodes_->Return(memory, count * sizeof(T)); }

    // Returns the free nodes of the container that this allocator is a copy of.
    void Trim() const noexcept { nodes_->Trim(); }

    template <class OTHER>
    bool operator==(const CVEKNodeAllocator<OTHER>& other) const {
        return nodes_ == other.nodes_;
    }
    template <class OTHER>
    bool operator!=(const CVEKNodeAllocator<OTHER>& other) const {
        return nodes_ != other.nodes_;
    }

  private:
    template <class OTHER>
    friend class CVEKNodeAllocator;

    std::shared_ptr<CVEKFreeNodes> nodes_;
};

#endif
