#include "tvd/TvdTrace.h"

#include "tvd/tvd_probes.h"

namespace tv {

// The probe macros take char*; the probes never write through them.
static char* text(const std::string& s)
{
    return const_cast<char*>(s.c_str());
}

void TvdTrace::clientNew(int pid) { TVD_CLIENT_NEW(pid); }
void TvdTrace::clientDone(int pid) { TVD_CLIENT_DONE(pid); }
bool TvdTrace::requestInputEnabled() { return TVD_REQUEST_INPUT_ENABLED(); }
void TvdTrace::requestInput(int pid, const std::string& t) { TVD_REQUEST_INPUT(pid, text(t)); }
void TvdTrace::request(int pid, const char* type) { TVD_REQUEST(pid, const_cast<char*>(type)); }
bool TvdTrace::requestOutputEnabled() { return TVD_REQUEST_OUTPUT_ENABLED(); }
void TvdTrace::requestOutput(int pid, const std::string& t) { TVD_REQUEST_OUTPUT(pid, text(t)); }
void TvdTrace::pluginAdd(const std::string& path) { TVD_PLUGIN_ADD(text(path)); }
void TvdTrace::pluginRemove(const std::string& path, bool resolved) { TVD_PLUGIN_REMOVE(text(path), resolved ? 1 : 0); }
void TvdTrace::pluginReady(const std::string& uuid) { TVD_PLUGIN_READY(text(uuid)); }
void TvdTrace::discoverRaw(std::uint32_t count) { TVD_DISCOVER_RAW(count); }
void TvdTrace::dbLoad(const std::string& domain, std::uint64_t code) { TVD_DB_LOAD(text(domain), code); }

} // namespace tv
