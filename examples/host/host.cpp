// A host program built against the installed client library: connects to
// tvd, asks which plug-ins of an extension point it is offered ("match") and
// prints one line per plug-in. Exit status: 0 on a reply, 1 for an error
// reply, 69 when the daemon cannot be reached.
//
//   tarvik-host [SERVICE] [EXTENSION-POINT]
//
// SERVICE is the daemon's service name or socket path (default
// com.veltra.tarvik.tvd, found in the service directory of TVD_CONFIG).
#include <Tarvik/TvDaemonClient.h>
#include <Tarvik/TvDiscoveryFlags.h>
#include <platform/PlatformConfig.h>
#include <platform/ipc/LinuxVynService.h>

#include <cstdio>
#include <future>
#include <memory>
#include <mutex>
#include <string>

int main(int argc, char** argv)
{
    const char* service = argc > 1 ? argv[1] : tv::TvDaemonClient::kDefaultServiceName;
    std::string point = argc > 2 ? argv[2] : "com.veltra.share-services";

    auto config = tv::platform::PlatformConfig::load();
    if (!config) {
        std::fprintf(stderr, "tarvik-host: %s\n", config.error().localizedDescription().c_str());
        return 2;
    }
    auto vyn = tv::platform::LinuxVynService::create(*config);
    if (!vyn)
        return 69;
    tv::TvDaemonClient client(vyn, service);

    // The completion runs on the client's queue. The first answer counts; a
    // broken connection may report once more later, so the handler owns
    // what it writes to.
    auto answered = std::make_shared<std::promise<tv::platform::VynEvent>>();
    auto once = std::make_shared<std::once_flag>();
    auto future = answered->get_future();
    tv::Value rules = tv::Value::emptyDictionary().with("KoExtensionPointIdentifier", tv::Value(point));
    client.matchPlugInsFlagsReply(rules, 0, [answered, once](const tv::platform::VynEvent& answer) {
        std::call_once(*once, [&] { answered->set_value(answer); });
    });
    tv::platform::VynEvent answer = future.get();

    if (auto* broken = tv::platform::eventError(answer)) {
        std::fprintf(stderr, "tarvik-host: cannot reach tvd at %s: %s\n", service, broken->description.c_str());
        return 69;
    }
    if (auto error = tv::TvDaemonClient::errorInReply(answer)) {
        std::fprintf(stderr, "tarvik-host: tvd refused the match (code %lld): %s\n",
                     static_cast<long long>(error->code), error->description.value_or("").c_str());
        return 1;
    }
    tv::Value forms = client.convertFromVYN(tv::platform::eventMessage(answer)->get("matches"));
    std::size_t count = 0;
    if (const tv::Array* all = forms.asArray())
        for (const tv::Value& form : *all) {
            const std::string* id = form["identifier"].asString();
            std::printf("%s\n", id ? id->c_str() : "?");
            ++count;
        }
    std::printf("%zu plug-ins offered for %s\n", count, point.c_str());
    return 0;
}
