#include <foundation/storage/providers/s3/s3_settings.hpp>

#include <boost/property_tree/ptree.hpp>

#include <cstdlib>
#include <stdexcept>

namespace foundation::storage::providers::s3 {

namespace {

std::string environment(char const* name) {
  char const* value = std::getenv(name);
  return value ? value : "";
}

template <class T>
T number(boost::property_tree::ptree const& value, std::string const& key) {
  auto parsed = value.get_value_optional<T>();
  if (!parsed) throw std::invalid_argument("setting \"" + key + "\" needs a number, not \"" + value.data() + "\"");
  return *parsed;
}

} // namespace

S3Settings S3Settings::fromEnvironment() {
  S3Settings settings;
  settings.accessKeyId = environment("AWS_ACCESS_KEY_ID");
  settings.secretAccessKey = environment("AWS_SECRET_ACCESS_KEY");
  settings.sessionToken = environment("AWS_SESSION_TOKEN");
  if (auto region = environment("AWS_REGION"); !region.empty())
    settings.region = region;
  else if (auto fallback = environment("AWS_DEFAULT_REGION"); !fallback.empty())
    settings.region = fallback;
  settings.endpoint = environment("AWS_ENDPOINT_URL");
  settings.pathStyle = !settings.endpoint.empty();
  return settings;
}

void S3Settings::apply(boost::property_tree::ptree const& settings) {
  bool pathStyleGiven = false;
  for (auto const& [key, value] : settings) {
    if (key == "endpoint")
      endpoint = value.data();
    else if (key == "region")
      region = value.data();
    else if (key == "accessKeyId")
      accessKeyId = value.data();
    else if (key == "secretAccessKey")
      secretAccessKey = value.data();
    else if (key == "sessionToken")
      sessionToken = value.data();
    else if (key == "pathStyle")
      pathStyle = number<bool>(value, key), pathStyleGiven = true;
    else if (key == "connectTimeoutMs")
      connectTimeout = std::chrono::milliseconds(number<unsigned>(value, key));
    else if (key == "requestTimeoutMs")
      requestTimeout = std::chrono::milliseconds(number<unsigned>(value, key));
    else if (key == "retries")
      retries = number<unsigned>(value, key);
    else if (key == "partSize")
      partSize = number<std::uint64_t>(value, key);
    else if (key == "parallelism")
      parallelism = number<unsigned>(value, key);
    else
      throw std::invalid_argument("unknown setting \"" + key + "\"");
  }
  if (!pathStyleGiven && settings.count("endpoint")) pathStyle = !endpoint.empty();
  if (partSize < (5u << 20)) throw std::invalid_argument("setting \"partSize\" must be at least 5 MiB");
  if (parallelism == 0) throw std::invalid_argument("setting \"parallelism\" must be at least 1");
}

} // namespace foundation::storage::providers::s3
