// Start-up: binding the host's services, the logger and the prepared patterns.
#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "workers/wiki/citation_refresh.h"

namespace tolbarrow::workers::wiki::citation_refresh {
namespace {

template <class T>
const T& bind_module(const std::optional<T>& module, const char* name) {
  if (!module) throw HostBindingError(name);
  return *module;
}

template <class T>
void bind_name(const T& value, const char* module, const char* name) {
  if (!value) throw HostBindingError(std::string(module) + "." + name);
}

}  // namespace

HostBindingError::HostBindingError(std::string name)
    : std::runtime_error("cannot bind host service " + name + ": the host does not provide it"),
      name_(std::move(name)) {}

Module::Module(Bound host, std::shared_ptr<spdlog::logger> logger)
    : host_(std::move(host)), logger_(std::move(logger)) {}

Module Module::load(HostModules host, std::shared_ptr<spdlog::logger> logger) {
  Bound bound;
  bound.citation_ranges = bind_module(host.citation_ranges, "citation_ranges");
  bind_name(bound.citation_ranges.LineCounts, "citation_ranges", "LineCounts");
  bind_name(bound.citation_ranges.fit_range, "citation_ranges", "fit_range");

  bound.lock = bind_module(host.lock, "lock");
  bind_name(bound.lock.WriteLockMixin, "lock", "WriteLockMixin");

  bound.repo_facts = bind_module(host.repo_facts, "repo_facts");
  bind_name(bound.repo_facts.atomic_write, "repo_facts", "_atomic_write");
  bind_name(bound.repo_facts.text_hash, "repo_facts", "_text_hash");

  bound.types = bind_module(host.types, "types");
  bind_name(bound.types.CITATION_RE, "types", "_CITATION_RE");
  bind_name(bound.types.citation_key, "types", "citation_key");

  bound.verify = bind_module(host.verify, "verify");
  bind_name(bound.verify.SKIP_IDENT_EXTS, "verify", "_SKIP_IDENT_EXTS");
  bind_name(bound.verify.UNANCHORED_KINDS, "verify", "_UNANCHORED_KINDS");
  bind_name(bound.verify.anchor_symbol, "verify", "anchor_symbol");
  bind_name(bound.verify.anchored, "verify", "anchored");
  bind_name(bound.verify.prose_citations, "verify", "prose_citations");
  bind_name(bound.verify.rewrite_citations, "verify", "rewrite_citations");

  if (!logger) {
    logger = std::make_shared<spdlog::logger>(std::string(MODULE_NAME),
                                              std::make_shared<spdlog::sinks::stderr_sink_mt>());
  }
  detail::CLAIM_IDENT_RE();  // prepared once, here
  return Module(std::move(bound), std::move(logger));
}

}  // namespace tolbarrow::workers::wiki::citation_refresh
