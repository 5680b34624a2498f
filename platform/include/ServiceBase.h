// Interface through which a service host owns a loaded service.
#ifndef PLATFORM_SERVICE_BASE_H
#define PLATFORM_SERVICE_BASE_H

// A service library exports `extern "C" CServiceBase* Create()`. The host keeps the
// pointer until shutdown and then deletes it; deleting runs the service's own teardown.
class CServiceBase {
public:
    virtual ~CServiceBase() = default;
};

// Signature of the entry a host looks up with dlsym("Create").
typedef CServiceBase* (*ServiceCreateFn)();

#endif
