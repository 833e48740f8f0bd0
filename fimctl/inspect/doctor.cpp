#include "fimctl/inspect/doctor.h"

#include <unistd.h>

#include <algorithm>

#include "fimctl/array_session.h"
#include "fimctl/inspect/host_service.h"
#include "fimctl/inspect/report.h"

namespace fimctl {
namespace {

const char *name_of(Verdict verdict) {
    switch (verdict) {
    case Verdict::ok:
        return "ok";
    case Verdict::warn:
        return "warn";
    case Verdict::fail:
        return "fail";
    }
    return "unknown";
}

std::string joined(const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words) text += (text.empty() ? "" : ", ") + word;
    return text;
}

// What the child that loads the method finds out.
Message ask_method(const std::string &method, const std::string &client) {
    const HostService service(method);
    Message facts = {{"trouble", service.trouble()},
                     {"missing", service.missing_entry_points()},
                     {"answers", service.answers()},
                     {"entries", Message::array()}};
    std::vector<std::string> keys = {"dgimport", "no_dgimport"};
    if (!client.empty()) {
        keys.push_back("dgimport_" + client);
        keys.push_back("no_dgimport_" + client);
        facts["local"] = service.is_local(client);
    }
    for (const std::string &key : keys) {
        if (service.has_entry(key)) facts["entries"].push_back(key);
    }
    return facts;
}

bool holds(const std::vector<std::string> &entries, const std::string &key) {
    return std::find(entries.begin(), entries.end(), key) != entries.end();
}

void judge_import(const std::vector<std::string> &entries, const std::string &client, bool is_local,
                  Findings &findings) {
    const std::string subject = "disk-group import";
    const std::string found = entries.empty() ? "no entry" : joined(entries);
    const bool wanted = holds(entries, "dgimport") || holds(entries, "dgimport_" + client);
    const bool unwanted = holds(entries, "no_dgimport") || holds(entries, "no_dgimport_" + client);
    if (wanted && unwanted) {
        findings.warn(subject, found + ": the entries contradict each other, and no import wins",
                      "take one of them out of the host's configuration");
    } else if (client.empty()) {
        findings.ok(subject, found + " in the host's configuration");
    } else if (is_local) {
        findings.warn(subject, found + ": " + client + " is this host, so nothing is imported",
                      "name the alternate backup host with --client");
    } else {
        findings.ok(subject, found + ": " + (wanted && !unwanted ? "imported" : "not imported") +
                                 " on " + client);
    }
}

}  // namespace

void Findings::ok(const std::string &subject, const std::string &text) {
    all_.push_back({Verdict::ok, subject, text, ""});
}

void Findings::warn(const std::string &subject, const std::string &text,
                    const std::string &remedy) {
    all_.push_back({Verdict::warn, subject, text, remedy});
}

void Findings::fail(const std::string &subject, const std::string &text,
                    const std::string &remedy) {
    all_.push_back({Verdict::fail, subject, text, remedy});
}

Verdict Findings::worst() const {
    Verdict worst = Verdict::ok;
    for (const Finding &finding : all_) worst = std::max(worst, finding.verdict);
    return worst;
}

void examine_method(const Settings &settings, const std::string &client, Findings &findings) {
    const std::string subject = "method";
    Message facts;
    try {
        facts = read_elsewhere(Step::load, [&] { return ask_method(settings.method, client); });
    } catch (const Failure &failure) {
        findings.fail(subject, settings.method + ": " + failure.what(), "install the method again");
        return;
    }
    const auto missing = facts.at("missing").get<std::vector<std::string>>();
    if (!facts.at("trouble").get<std::string>().empty()) {
        findings.fail(subject, "cannot be loaded: " + facts.at("trouble").get<std::string>(),
                      "install the method with its host library, or name it with --method");
        return;
    }
    if (!missing.empty()) {
        findings.fail(subject, settings.method + " lacks " + joined(missing),
                      "install a complete method, or name it with --method");
    } else {
        findings.ok(subject, settings.method + ", all twelve entry points");
    }
    if (!facts.at("answers").get<bool>()) {
        findings.warn("host library", "the method is linked to none that can be asked",
                      "install libtessera_host.so beside the method");
        return;
    }
    findings.ok("host library", "answers for names and configuration");
    judge_import(facts.at("entries"), client, facts.value("local", false), findings);
}

Findings examine(const Settings &settings, const std::string &client) {
    Findings findings;
    if (geteuid() != 0) {
        findings.warn("user", "not root: what only root may see is told as missing",
                      "run fimctl doctor as root");
    }
    examine_method(settings, client, findings);
    examine_array(settings, findings);
    examine_tools(findings);
    examine_folders(settings, findings);
    examine_hooks(settings, findings);
    examine_mount_table(findings);
    return findings;
}

std::string examination_report(const Findings &findings, bool json) {
    if (json) {
        Json all = Json::array();
        for (const Finding &finding : findings.all()) {
            Json one;
            one["verdict"] = name_of(finding.verdict);
            one["subject"] = finding.subject;
            one["text"] = finding.text;
            one["remedy"] = finding.remedy;
            all.push_back(one);
        }
        Json whole;
        whole["verdict"] = name_of(findings.worst());
        whole["findings"] = all;
        return document(whole);
    }
    size_t width = 0;
    for (const Finding &finding : findings.all()) width = std::max(width, finding.subject.size());
    std::string text;
    for (const Finding &finding : findings.all()) {
        std::string head = name_of(finding.verdict);
        head.resize(6, ' ');
        std::string subject = finding.subject;
        subject.resize(width + 2, ' ');
        text += head + subject + finding.text + "\n";
        if (!finding.remedy.empty()) text += "      -> " + finding.remedy + "\n";
    }
    return text;
}

}  // namespace fimctl
