// `Ny::Object<T>`: owning holder of one runtime object (lock, semaphore or thread).
//
// Create into it with `Out()`, read it with `Get()`, destroy it with `Reset()` (which throws
// `Ny::Exception` with the runtime's status if destruction fails) or by destroying the holder (which
// logs a failure instead of throwing). Not thread-safe: the owner serializes access.
#pragma once

#include <utility>

#include "NyApi/Exception.h"
#include "NyRuntime/Runtime.h"

namespace Ny {

namespace Internal {
inline NyRt::Status DestroyRuntimeObject(NyRt::Lock* object) {
    return NyRt::LockDestroy(object);
}
inline NyRt::Status DestroyRuntimeObject(NyRt::Semaphore* object) {
    return NyRt::SemaphoreDestroy(object);
}
inline NyRt::Status DestroyRuntimeObject(NyRt::Thread* object) {
    return NyRt::ThreadDestroy(object);
}
}  // namespace Internal

template <typename T>
class Object {
  public:
    Object() = default;
    explicit Object(T* objectIn) : object(objectIn) {}
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    Object(Object&& other) noexcept : object(std::exchange(other.object, nullptr)) {}
    Object& operator=(Object&& other) noexcept {
        if (this != &other) {
            Release();
            object = std::exchange(other.object, nullptr);
        }
        return *this;
    }
    ~Object() { Release(); }

    T* Get() const { return object; }
    explicit operator bool() const { return object != nullptr; }

    // Address to create into: `NyRt::LockCreate(holder.Out())`. Destroys a held object first.
    T** Out() {
        Reset();
        return &object;
    }

    // Destroys the held object, if any, and leaves the holder empty.
    void Reset() {
        if (object == nullptr) {
            return;
        }
        const NyRt::Status status = Internal::DestroyRuntimeObject(std::exchange(object, nullptr));
        if (status != NyRt::Ok) {
            throw NY_EXCEPTION(status);
        }
    }

  private:
    void Release() noexcept {
        if (object != nullptr && Internal::DestroyRuntimeObject(std::exchange(object, nullptr)) != NyRt::Ok) {
            NY_LOG(Logging::Level::CaughtFailure, "Exception thrown in destructor");
        }
    }

    T* object = nullptr;
};

}  // namespace Ny
