#pragma once

#include <workspace_browser/platform/message_service/MessageService.hpp>
#include <workspace_browser/platform/message_service/Subscription.hpp>

#include <memory>
#include <string>
#include <vector>

namespace wsbrowser {

// Tells one page which column each grid position holds. The grid's column metadata numbers the
// columns without naming them, so the page asks here with {"get":"columns"} and is answered
// {"columns":["Name","Value",...],"statistics":{"on":true,"limit":100000,"columns":["Min",...]}}:
// the visible column keys in the order the metadata and the data pages number them, and when
// and for which columns the host computes statistics, so that the page can say why a
// statistic is blank. Anything else published here is logged and ignored.
// Thread-safe: requests arrive on the service's delivery thread; close(), from any thread,
// ends the subscription.
class ColumnsChannel {
public:
    struct Statistics {
        bool on = true;
        double limit = 0; // values with more elements get none
        std::vector<std::string> columns;
    };
    ColumnsChannel(const connector::message_service::MessageService::Ptr& service,
                   const std::string& channel, std::vector<std::string> keys,
                   Statistics statistics);
    ~ColumnsChannel();
    ColumnsChannel(const ColumnsChannel&) = delete;
    ColumnsChannel& operator=(const ColumnsChannel&) = delete;

    void close();

private:
    std::shared_ptr<connector::message_service::Subscription> mSubscription;
};

} // namespace wsbrowser
