// Base classes for resources: `ResourceBase` (the notification event, no providers),
// `DocumentResourceBase` (a read-only document unless UpdateDocument is overridden) and
// `CommandResourceBase` (a callable command).
#pragma once

#include "NyApi/Exception.h"
#include "NyRest/Resource.h"

namespace NyRest {

// Status of the refusal of an update of a read-only document; the router answers it with 405.
inline constexpr int ReadOnlyDocumentStatus = -405;

class ResourceBase : public IResource {
  public:
    NotificationEventType& NotificationEvent() override { return notificationEvent; }
    IParentResource* ParentProvider() override { return nullptr; }
    IDocumentResource* DocumentProvider() override { return nullptr; }
    ICallableResource* CallableProvider() override { return nullptr; }
    IStreamableResource* StreamableProvider() override { return nullptr; }

  protected:
    ResourceBase() = default;
    ~ResourceBase() = default;

  private:
    NotificationEventType notificationEvent;
};

class DocumentResourceBase : public ResourceBase, public IDocumentResource {
  public:
    IDocumentResource* DocumentProvider() override { return this; }
    // The document is read-only: throws Ny::Exception ReadOnlyDocumentStatus.
    void UpdateDocument(const RequestInfo& request, const nlohmann::json& body) override;

  protected:
    ~DocumentResourceBase() = default;
};

class CommandResourceBase : public ResourceBase, public ICallableResource {
  public:
    ICallableResource* CallableProvider() override { return this; }

  protected:
    ~CommandResourceBase() = default;
};

}  // namespace NyRest
