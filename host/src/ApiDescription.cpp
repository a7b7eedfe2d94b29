#include "ApiDescription.h"

#include "NyApi/Exception.h"

// Generated at build time from host/api/openapi.json (see host/CMakeLists.txt).
extern "C" const char nyr_openapi_document[];
extern "C" const unsigned long nyr_openapi_document_size;

namespace NyHost {

namespace {

nlohmann::json Parsed(std::string_view text) {
    nlohmann::json document = nlohmann::json::parse(text, nullptr, false);
    if (!document.is_object()) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "The built-in API description is not a JSON object.");
    }
    return document;
}

}  // namespace

ApiDescription::ApiDescription(NyRest::ResourceRouter& routerIn)
    : router(routerIn), document(Parsed(EmbeddedText())) {
    router.Register(kPath, *this);
}

ApiDescription::~ApiDescription() {
    router.Deregister(kPath, true);
}

std::string_view ApiDescription::EmbeddedText() {
    return {nyr_openapi_document, nyr_openapi_document_size};
}

nlohmann::json ApiDescription::GetDocument(const NyRest::RequestInfo&, NyRest::ResponseInfo&) {
    return document;
}

}  // namespace NyHost
