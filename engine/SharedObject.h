// SPDX-License-Identifier: Apache-2.0
// SharedObject<T> is the host browser's intrusive reference count: one
// unsigned counter, 0 at construction, raised and lowered by the handles
// (RefPtr<T>) that point at the object. It is a non-virtual base.
#ifndef WIDGETENGINE_SHAREDOBJECT_H_
#define WIDGETENGINE_SHAREDOBJECT_H_

#include <widgetengine/Export.h>

template <typename T>
class WIDGETENGINE_EXPORT SharedObject {
 public:
  SharedObject() : refCount_(0) {}
  SharedObject(const SharedObject&) = delete;
  SharedObject& operator=(const SharedObject&) = delete;

  void ref() { ++refCount_; }
  // Lowers the count; true when the last reference went away.
  bool deref() { return --refCount_ == 0; }
  unsigned refCount() const { return refCount_; }

 private:
  unsigned refCount_;
};

#endif  // WIDGETENGINE_SHAREDOBJECT_H_
