#pragma once

#include <memory>

namespace vexo {

/// Ends an object of the library, which a host never deletes.
struct Destroy {
    template <class Interface> void operator()(Interface* object) const noexcept { object->destroy(); }
};

/// An object of the library that ends with its owner: `Owned<iStereoCamera> camera(CreateStereoCamera(...))`. Empty
/// when the factory answered null.
template <class Interface> using Owned = std::unique_ptr<Interface, Destroy>;

} // namespace vexo
