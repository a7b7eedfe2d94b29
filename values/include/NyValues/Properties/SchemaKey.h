// `Ny::Properties::Internal::Key<"...">()`: a schema key as a std::string made once per key.
//
// Every value enters "type", every parameter "title" and "sortOrder" in its schema, and a document
// builds hundreds of them per read; handing the key over as a literal would build and drop a string
// for each. The string is made on first use (a function-local static, so it is ready however early a
// value is built, even while a plug-in's globals are initialized) and never changes: any thread may
// use it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

namespace Ny::Properties::Internal {

// Implicit, so that a literal names the key: Key<"type">().
template <std::size_t N>
struct KeyText {
    constexpr KeyText(const char (&textIn)[N]) { std::copy_n(textIn, N, text); }
    char text[N];
};

template <KeyText K>
const std::string& Key() {
    static const std::string key(K.text);
    return key;
}

}  // namespace Ny::Properties::Internal
