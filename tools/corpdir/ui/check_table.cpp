#include "ui/check_table.h"

#include "text.h"
#include "ui/json.h"

namespace corpdir_tool
{

namespace
{

struct Row
{
    CheckStep step;
    const char* name;
    std::string result;          // of a step that was done
    std::uint64_t microseconds;  // 0: not known
};

std::string Milliseconds(std::uint64_t microseconds)
{
    char text[32] = "";
    (void)std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(microseconds) / 1000.0);
    return text;
}

std::string DateOf(std::int64_t time)
{
    const std::time_t seconds = time;
    std::tm parts = {};
    char text[32] = "";
    (void)gmtime_r(&seconds, &parts);
    (void)std::strftime(text, sizeof text, "%Y-%m-%d", &parts);
    return text;
}

std::string TimeLeft(std::int64_t until, std::time_t now)
{
    const std::int64_t days = (until - now) / 86400;
    return until < now ? "expired"
                       : std::to_string(days) + (days == 1 ? " day left" : " days left");
}

std::string CertificateText(const CheckResult& result, std::time_t now)
{
    if (result.timings.llCertificateUntil == 0)
    {
        return "";
    }
    return std::string(result.timings.acSubject) + ", valid until " +
           DateOf(result.timings.llCertificateUntil) + " (" +
           TimeLeft(result.timings.llCertificateUntil, now) + ")";
}

std::string DirectoryText(const CheckResult& result)
{
    return result.directoryBytes == TRAVEX_FTP_SIZE_UNKNOWN
               ? "exists; the server does not report its size"
               : "exists, " + std::to_string(result.directoryBytes) + " bytes";
}

// The layer measures times from the begin of the transfer; each row shows the time since the step
// before.
std::vector<Row> RowsOf(const CheckResult& result, const Plan& plan, std::time_t now)
{
    const tagTRAVEX_FTP_S_TIMINGS& timings = result.timings;
    const auto since = [](std::uint64_t end, std::uint64_t begin)
    { return end > begin ? end - begin : 0; };
    const std::uint64_t ready = plan.plain ? timings.ullConnected : timings.ullSecured;
    std::vector<Row> rows;
    rows.push_back({CheckStep::kConnect, "connect", "ok", timings.ullConnected});
    if (!plan.plain)
    {
        rows.push_back({CheckStep::kTls, "TLS",
                        std::string(timings.acTlsVersion) + ", " + timings.acTlsSuite,
                        since(timings.ullSecured, timings.ullConnected)});
        rows.push_back({CheckStep::kCertificate, "certificate",
                        CertificateText(result, now) + (plan.verify ? "" : "; not verified"), 0});
        rows.push_back({CheckStep::kCertificate, "names", timings.acNames, 0});
    }
    rows.push_back(
        {CheckStep::kLogin, "login", "ok as " + plan.user, since(timings.ullLoggedIn, ready)});
    const char* const data = plan.plain ? ""
                             : timings.ulDataResumed == 1
                                 ? "; the data channel resumed the TLS session"
                                 : "; data channel had a TLS session of "
                                   "its own";
    rows.push_back(
        {CheckStep::kVersionFile, "version file",
         "'" + result.version + "', " + std::to_string(result.versionBytes) + " bytes" + data,
         since(timings.ullEnded, timings.ullLoggedIn)});
    rows.push_back({CheckStep::kDirectoryFile, "directory file", DirectoryText(result), 0});
    return rows;
}

void PrintRow(const char* name, const std::string& result, const std::string& time,
              const Terminal& output)
{
    (void)std::fprintf(output.Stream(), "  %-14s  %9s  %s\n", name, time.c_str(), result.c_str());
}

Json JsonOf(const CheckResult& result)
{
    const tagTRAVEX_FTP_S_TIMINGS& timings = result.timings;
    const auto time = [](std::uint64_t microseconds) {
        return microseconds == 0 ? Json(nullptr)
                                 : Json(static_cast<double>(microseconds) / 1000000.0);
    };
    const bool certificate = timings.llCertificateUntil != 0;
    return {{"address", result.server.address},
            {"name", OrNull(result.server.name)},
            {"works", result.failedAt == CheckStep::kDone},
            {"code", result.failure.code},
            {"step", result.failure.step},
            {"reply", result.failure.reply},
            {"reason", OrNull(result.failure.reason)},
            {"tls_version", OrNull(timings.acTlsVersion)},
            {"tls_suite", OrNull(timings.acTlsSuite)},
            {"certificate_subject", OrNull(timings.acSubject)},
            {"certificate_until",
             certificate ? Json(DateOf(timings.llCertificateUntil)) : Json(nullptr)},
            {"certificate_names",
             certificate ? Json(CertificateNames(timings.acNames)) : Json(nullptr)},
            {"session_resumed", timings.ulDataResumed == 1},
            {"seconds",
             {{"connected", time(timings.ullConnected)},
              {"secured", time(timings.ullSecured)},
              {"logged_in", time(timings.ullLoggedIn)},
              {"opened", time(timings.ullOpened)},
              {"ended", time(timings.ullEnded)}}},
            {"version", OrNull(result.version)},
            {"directory_bytes", result.directoryBytes == TRAVEX_FTP_SIZE_UNKNOWN
                                    ? Json(nullptr)
                                    : Json(result.directoryBytes)},
            {"warnings", result.warnings}};
}

}  // namespace

void PrintCheck(const CheckResult& result, const Plan& plan, std::time_t now,
                const Terminal& output)
{
    const std::string port = std::to_string(plan.UsedPort());
    (void)std::fprintf(output.Stream(), "%s, port %s\n", Printable(result.server.Label()).c_str(),
                       port.c_str());
    for (const Row& row : RowsOf(result, plan, now))
    {
        if (row.step == result.failedAt)
        {
            PrintRow(row.name,
                     output.Styled(Style::kBad, "failed: ") + Printable(result.failure.reason), "",
                     output);
            // Shows the certificate although it was not accepted.
            const std::string certificate = CertificateText(result, now);
            if (row.step == CheckStep::kCertificate && !certificate.empty())
            {
                PrintRow("", Printable(certificate), "", output);
                PrintRow("names", Printable(result.timings.acNames), "", output);
            }
            return;
        }
        // When the handshake failed there is no TLS version to show.
        if (row.step != CheckStep::kTls || result.failedAt != CheckStep::kCertificate)
        {
            PrintRow(row.name, Printable(row.result),
                     row.microseconds == 0 ? "" : Milliseconds(row.microseconds), output);
        }
    }
    for (const std::string& warning : result.warnings)
    {
        PrintRow("warning", output.Styled(Style::kWarn, Printable(warning)), "", output);
    }
}

void PrintChecksAsJson(const std::vector<CheckResult>& results,
                       const std::vector<std::string>& leftOut, unsigned int port, int status,
                       const std::string& error, std::FILE* output)
{
    Json servers = Json::array();
    for (const CheckResult& result : results)
    {
        servers.push_back(JsonOf(result));
    }
    const Json object = {{"status", status},
                         {"error", OrNull(error)},
                         {"port", port},
                         {"servers", servers},
                         {"left_out", leftOut}};
    (void)std::fprintf(output, "%s\n", TextOf(object).c_str());
}

}  // namespace corpdir_tool
