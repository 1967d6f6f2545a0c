#include "ServiceTable.h"

#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/base/Wide.h"

#include <algorithm>

namespace tqscm {

std::string KeyOf(const std::string& name) {
    std::wstring wide = ToWide(name);
    CharUpperBuffW(wide.data(), static_cast<DWORD>(wide.size()));
    return ToUtf8(wide);
}

// What a registry key may be called, which takes a character less than a service.
bool IsServiceName(const std::string& name) {
    const bool isGood = std::ranges::none_of(
        name, [](char c) { return c == '/' || c == '\\' || (c >= 0 && c < ' ') || c == 0x7F; });
    return isGood && !name.empty() && WideLength(name) < MostServiceNameCharacters;
}

Service* ServiceTable::Find(const std::string& key) const {
    const auto found = m_services.find(key);
    return found == m_services.end() || found->second->isGoing ? nullptr : found->second.get();
}

Service& ServiceTable::Add(const std::string& name, ServiceConfig config) {
    auto service = std::make_unique<Service>(m_loop);
    service->key = KeyOf(name);
    service->name = name;
    service->config = std::move(config);
    service->status = {service->config.type, SERVICE_STOPPED, 0, ERROR_SERVICE_NEVER_STARTED, 0, 0, 0};
    Service& added = *m_services.insert_or_assign(service->key, std::move(service)).first->second;
    SetNames(added);
    return added;
}

void ServiceTable::SetConfig(Service& service, ServiceConfig config) {
    ForgetNames(service);
    service.config = std::move(config);
    service.start.nextDependency = 0;
    service.start.account.reset();
    SetNames(service);
}

void ServiceTable::Remove(Service& service) {
    ForgetNames(service);
    m_services.erase(service.key);
}

void ServiceTable::SetNames(Service& service) {
    service.displayKey = KeyOf(service.config.displayName);
    for (const std::string& name : service.config.dependencies)
        m_dependents[service.dependencies.emplace_back(KeyOf(name))].insert(service.key);
}

void ServiceTable::ForgetNames(Service& service) {
    for (const std::string& key : std::exchange(service.dependencies, {})) {
        const auto found = m_dependents.find(key);
        if (found == m_dependents.end()) continue;  // it was named twice
        found->second.erase(service.key);
        if (found->second.empty()) m_dependents.erase(found);
    }
}

bool ServiceTable::IsNameTaken(const std::string& key, const std::string& displayName) const {
    const std::string displayKey = KeyOf(displayName);
    return std::ranges::any_of(m_services, [&](const auto& entry) {
        const Service& other = *entry.second;
        return other.key != key && !other.isGoing &&
               (other.key == displayKey || other.displayKey == displayKey || other.displayKey == key);
    });
}

bool ServiceTable::IsCircle(const std::string& key, const std::vector<std::string>& names) const {
    std::set<std::string> seen;
    std::vector<std::string> open;
    const auto add = [&](const std::string& needed) {
        if (seen.insert(needed).second) open.push_back(needed);
    };
    std::ranges::for_each(names, [&](const std::string& name) { add(KeyOf(name)); });
    while (!open.empty() && !seen.contains(key)) {
        const Service* const needed = Find(std::exchange(open.back(), {}));
        open.pop_back();
        if (needed) std::ranges::for_each(needed->dependencies, add);
    }
    return seen.contains(key);
}

// Depth first, each service once and after its neighbours. Without recursion: a chain may be as long as there
// are services. False where there is a circle.
template <class Neighbours>
bool ServiceTable::Walk(Service& root, Neighbours neighbours, std::vector<Service*>& order) {
    struct Step {
        Service* service;
        std::vector<Service*> open;
    };
    bool hasCircle = false;
    std::map<const Service*, bool> isOpen{{&root, true}};
    std::vector<Step> path{{&root, neighbours(root)}};
    while (!path.empty()) {
        Step& step = path.back();
        if (step.open.empty()) {
            isOpen[step.service] = false;
            order.push_back(step.service);
            path.pop_back();
            continue;
        }
        Service* const next = step.open.back();
        step.open.pop_back();
        const auto [known, isNew] = isOpen.emplace(next, true);
        if (isNew)
            path.push_back({next, neighbours(*next)});
        else
            hasCircle = hasCircle || known->second;
    }
    return !hasCircle;
}

bool ServiceTable::StartOrder(Service& service, std::vector<Service*>& order) const {
    const auto toStart = [this](const Service& of) {
        std::vector<Service*> services;
        for (const std::string& key : of.dependencies)
            if (Service* const needed = Find(key); needed && needed->MayStart()) services.push_back(needed);
        return services;
    };
    return Walk(service, toStart, order);
}

std::vector<Service*> ServiceTable::DependentsOf(const Service& service) const {
    std::vector<Service*> order;
    const auto dependents = [this](const Service& of) {
        std::vector<Service*> services;
        const auto found = m_dependents.find(of.key);
        if (found == m_dependents.end()) return services;
        for (const std::string& key : found->second)
            if (Service* const dependent = Find(key)) services.push_back(dependent);
        return services;
    };
    Walk(const_cast<Service&>(service), dependents, order);
    order.pop_back();  // the service itself
    return order;
}

std::set<const Service*> ServiceTable::NeededNow() const {
    std::set<const Service*> needed;
    std::vector<const Service*> open;
    for (const auto& [key, service] : m_services)
        if (service->IsActive()) open.push_back(service.get());
    while (!open.empty()) {
        const Service* const service = open.back();
        open.pop_back();
        for (const std::string& key : service->dependencies)
            if (const Service* const other = Find(key); other && needed.insert(other).second)
                open.push_back(other);
    }
    return needed;
}

}  // namespace tqscm
