#pragma once

namespace Retra {

// Registers every type of the library with the framework's type registry ("Retra::Method",
// "Retra::Response", ...), in a fixed order. It runs by itself when the library is loaded;
// calling it again changes nothing.
void registerTypes();

}  // namespace Retra
