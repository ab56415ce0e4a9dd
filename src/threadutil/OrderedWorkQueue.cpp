#include <workspace_browser/threadutil/OrderedWorkQueue.hpp>

#include "threadutil/OrderedWorkQueueImpl.hpp"

namespace threadutil {

std::shared_ptr<OrderedWorkQueue> OrderedWorkQueue::create(const std::string& name) {
    return detail::OrderedWorkQueueImpl::create(name);
}

OrderedWorkQueue::~OrderedWorkQueue() = default;

} // namespace threadutil
