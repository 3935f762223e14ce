#include "ability_manager_client.h"

namespace Vex {
namespace AAFwk {

std::shared_ptr<AbilityManagerClient> AbilityManagerClient::GetInstance()
{
    static std::shared_ptr<AbilityManagerClient> instance = std::make_shared<AbilityManagerClient>();
    return instance;
}

AppExecFwk::ElementName AbilityManagerClient::GetTopAbility()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return top_;
}

void AbilityManagerClient::SetTopAbility(const AppExecFwk::ElementName& element)
{
    std::lock_guard<std::mutex> lock(mutex_);
    top_ = element;
}

}  // namespace AAFwk
}  // namespace Vex
