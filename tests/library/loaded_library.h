#pragma once

#include "vexo/vexo.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

/// libvexo.so as a host loads it at run time, and calls by slot number: what a host that was compiled against
/// other headers, or written in another language, does.
class LoadedLibrary {
public:
    LoadedLibrary()
        : _handle(dlopen(VEXO_LIBRARY, RTLD_NOW | RTLD_LOCAL))
    {
    }
    ~LoadedLibrary()
    {
        if (_handle != nullptr) dlclose(_handle);
    }
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    bool ok() const { return _handle != nullptr; }

    template <class Factory> Factory* factory(const char* name) const
    {
        return reinterpret_cast<Factory*>(dlsym(_handle, name));
    }

private:
    void* _handle;
};

/// Calls the virtual operation in `slot` of an object, counted from the first operation.
template <class Result, class... Args> Result call_slot(void* object, int slot, Args... args)
{
    void** table = *static_cast<void***>(object);
    return reinterpret_cast<Result (*)(void*, Args...)>(table[slot])(object, args...);
}
