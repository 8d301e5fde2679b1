// SPDX-License-Identifier: Apache-2.0
// RefPtr<T> is the host browser's reference-holding handle: one pointer wide,
// it takes a reference on the SharedObject it points at and releases it when
// it goes away, deleting the object (through its virtual destructor) with the
// last reference.
#ifndef WIDGETENGINE_REFPTR_H_
#define WIDGETENGINE_REFPTR_H_

#include <utility>

template <typename T>
class RefPtr {
 public:
  RefPtr() : ptr_(nullptr) {}
  explicit RefPtr(T* ptr) : ptr_(ptr) {
    if (ptr_) ptr_->ref();
  }
  RefPtr(const RefPtr& other) : ptr_(other.ptr_) {
    if (ptr_) ptr_->ref();
  }
  RefPtr(RefPtr&& other) noexcept : ptr_(other.ptr_) { other.ptr_ = nullptr; }
  ~RefPtr() { release(); }

  RefPtr& operator=(RefPtr other) noexcept {
    std::swap(ptr_, other.ptr_);
    return *this;
  }

  T* get() const { return ptr_; }
  T* operator->() const { return ptr_; }
  T& operator*() const { return *ptr_; }
  explicit operator bool() const { return ptr_ != nullptr; }

 private:
  void release() {
    if (ptr_ && ptr_->deref()) delete ptr_;
    ptr_ = nullptr;
  }

  T* ptr_;
};

#endif  // WIDGETENGINE_REFPTR_H_
