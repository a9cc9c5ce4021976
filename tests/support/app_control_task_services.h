// The host services around an application control task, as the tests and
// the benchmarks arrange them: the engine's object creator and its task, the
// event subscription, the settings store, a process table, categories and
// users as fakes, and the host's real task registry. The owner registers
// them with its locator, together with a publisher of its choice; the
// locator must let go of them before they go.
#pragma once

#include "app_control/interfaces/icategories_manager.h"
#include "app_control/interfaces/iengine_object_creator.h"
#include "app_control/interfaces/ienterprise_application_control_events2_subscription.h"
#include "app_control/interfaces/inon_remote_event_publisher.h"
#include "app_control/interfaces/iprocess_registry.h"
#include "app_control/interfaces/ipwdb.h"
#include "app_control/interfaces/itask_registry.h"
#include "host/services/service_locator.h"
#include "host/services/task_registry.h"
#include "tests/support/fake_engine_services.h"
#include "tests/support/fake_settings_services.h"
#include "tov_utils/interfaces/iservice_manager.h"

namespace testsupport {

class AppControlTaskServices {
 public:
  void RegisterWith(host::ServiceLocator& locator, tov::INonRemoteEventPublisher* publisher) {
    locator.Register<IEngineObjectCreator>(&creator);
    locator.Register<app_ctrl::IEnterpriseApplicationControlEvents2Subscription>(&subscription);
    locator.Register<app_core::facade::IServiceManager>(&serviceManager);
    locator.Register<tov::INonRemoteEventPublisher>(publisher);
    locator.Register<ITaskRegistry>(&taskRegistry);
    locator.Register<IProcessRegistry>(&processes);
    locator.Register<ICategoriesManager>(&categories);
    locator.Register<IPwdb>(&pwdb);
  }

  CallJournal journal;
  FakeEngineTask engineTask{journal};
  FakeEngineObjectCreator creator{journal, engineTask};
  FakeSubscription subscription{journal};
  FakeServiceManager serviceManager{journal};
  FakeProcessRegistry processes;
  FakeCategoriesManager categories;
  FakePwdb pwdb;
  host::TaskRegistry taskRegistry;
};

}  // namespace testsupport
