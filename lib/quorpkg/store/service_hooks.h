// What a change of the store needs from the package services: an upgrade
// stops the old service and the running packages that need it and starts
// them again afterwards, a new package is started and turned on, a removal
// stops the package first. The store owns this interface and the service
// layer implements it, so the store never depends on the services.
#pragma once

#include <string>

namespace quor {

class ServiceHooks {
public:
    virtual ~ServiceHooks() = default;

    // Starts the package, required packages first. With `turnOn` the
    // package and its requirements are also turned on (enabled flag).
    virtual int start(const std::string& name, const char* event, bool turnOn) = 0;

    // Stops the package, the packages that depend on it first.
    virtual int stop(const std::string& name, const char* event) = 0;

    // Whether the platform started the package and has not stopped it since.
    virtual bool isActive(const std::string& name) = 0;
};

}  // namespace quor
