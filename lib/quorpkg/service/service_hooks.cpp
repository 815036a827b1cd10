// The services as the store's changes see them.
#include "quorpkg/store/service_hooks.h"

#include "quorpkg/service/services.h"

namespace quor {
namespace {

class PackageServiceHooks final : public ServiceHooks {
public:
    int start(const std::string& name, const char* event, bool turnOn) override {
        ServiceRequest request;
        if (turnOn) request.type = QUORPackageTool::PKG_INSTALLATION_TYPE_ENABLE;
        request.event = event;
        return startPackage(name, request);
    }

    int stop(const std::string& name, const char* event) override {
        ServiceRequest request;
        request.event = event;
        return stopPackage(name, request);
    }

    bool isActive(const std::string& name) override { return isMarkedActive(name); }
};

}  // namespace

ServiceHooks& serviceHooks() {
    static PackageServiceHooks hooks;
    return hooks;
}

}  // namespace quor
