// `ApiDescription`: the read-only resource at "/openapi.json" that serves the OpenAPI document of the
// host's HTTP API. The document is host/api/openapi.json, embedded in the binary when it is built, so
// that an installed host always describes the API of its own version and never reads a file at run time.
//
// Owned by the host service; registers itself on construction and withdraws itself on destruction, so
// the router never holds a dangling resource. The document is parsed once, in the constructor (a
// document that is not JSON is a build defect and throws there, loudly, at start-up); reads only copy
// it. Thread-safe for reads from any request thread.
#pragma once

#include <string_view>

#include <nlohmann/json.hpp>

#include "NyRest/DocumentResourceBase.h"
#include "NyRest/ResourceRouter.h"

namespace NyHost {

class ApiDescription final : public NyRest::DocumentResourceBase {
  public:
    static constexpr const char* kPath = "/openapi.json";

    // Throws Ny::Exception -997 when the embedded document is not a JSON object, and the router's
    // errors when the path is taken.
    explicit ApiDescription(NyRest::ResourceRouter& router);
    ~ApiDescription();
    ApiDescription(const ApiDescription&) = delete;
    ApiDescription& operator=(const ApiDescription&) = delete;

    nlohmann::json GetDocument(const NyRest::RequestInfo& request, NyRest::ResponseInfo& response) override;

    // The document's text as it was built into the binary.
    static std::string_view EmbeddedText();

  private:
    NyRest::ResourceRouter& router;
    const nlohmann::json document;
};

}  // namespace NyHost
