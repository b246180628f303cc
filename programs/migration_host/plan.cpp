#include "programs/migration_host/plan.h"

#include <utility>
#include <variant>

#include "AppMigrator/plan_keys.h"
#include "platform/migration_log.h"
#include "platform/product_log.h"
#include "platform/registry.h"
#include "programs/common/console.h"
#include "programs/migration_host/commands.h"
#include "programs/migration_host/exit_status.h"
#include "programs/migration_host/migrator_root.h"

namespace pallion::host {

namespace {

// Hears both logs and writes nothing: a look is no part of the device's history.
class Silence {
 public:
  Silence() {
    gLogHandle = &product_;
    MigrationLogSink::replace(&host_);
  }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;
  ~Silence() {
    MigrationLogSink::replace(nullptr);
    gLogHandle = nullptr;
  }

 private:
  // Below the level of every line.
  static constexpr int kNothing = 0;
  struct Product final : LogHandle {
    Product() : LogHandle(kNothing) {}
    void write(int, std::string_view, std::string_view) override {}
  };
  struct Host final : MigrationLogSink {
    [[nodiscard]] int level() const override { return kNothing; }
    void write(const MigrationLogRecord&) override {}
  };
  Product product_;
  Host host_;
};

int statusOf(const Dictionary& plan) {
  if (plan.get(plan::kNoMigrator)) return kExitNoMigrator;
  return plan.get(plan::kResult).asBoolean() == true ? kExitSuccess : kExitFailure;
}

std::string idOf(const std::optional<Dictionary>& plan) {
  const std::string* id = plan ? plan->getString(plan::kId) : nullptr;
  return id ? *id : "none";
}

// The plan, or a line on standard error and the exit status that goes with it.
std::variant<Dictionary, int> planOfRoot(const Options& options) {
  MigratorRoot root;
  if (const int refused = root.enter(options, MigratorRoot::Use::kQuestion)) return refused;
  std::optional<Dictionary> plan = makePlan(root.module());
  if (plan) return std::move(*plan);
  complain(root.module().path() + ": tells no plan");
  return kExitNoMigrator;
}

}  // namespace

std::optional<Dictionary> makePlan(const PluginModule& module) {
  const Silence silence;
  const std::unique_ptr<Registry> registry = Registry::atRoot(URL(), Registry::Access::kReadOnly);
  AppWorkspace::replace(registry.get());
  InstallerService::replace(registry.get());
  std::optional<Dictionary> plan;
  if (const Plugin plugin = module.createPlugin()) plan = plugin->migrationPlan();
  AppWorkspace::replace(nullptr);
  InstallerService::replace(nullptr);
  return plan;
}

bool planIsExpected(const Options& options, const PluginModule& module) {
  const std::string id = idOf(makePlan(module));
  if (id == options.expectedPlan) return true;
  complain(options.root + ": nothing was changed: the plan is " + id + ", expected was " +
           options.expectedPlan);
  return false;
}

int showPlan(const Options& options) {
  const std::variant<Dictionary, int> found = planOfRoot(options);
  const Dictionary* plan = std::get_if<Dictionary>(&found);
  const int status = plan ? statusOf(*plan) : std::get<int>(found);
  if (options.json) {
    print(planJSON(plan ? *plan : Dictionary(), status));
  } else if (plan && !options.quiet) {
    print(planTable(*plan));
  }
  return status;
}

}  // namespace pallion::host
