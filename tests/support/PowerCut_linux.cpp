#include "support/PowerCut_linux.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <sys/stat.h>

namespace Quellan::Corvel::Test {

namespace fs = std::filesystem;
using Platform::Durable::FileIdentity;
using Platform::Durable::Step;
using Platform::Durable::TheObserver;

namespace {

constexpr std::size_t PieceBytes = 512;

std::vector<Step>* g_steps;

// What becomes of the steps that were not synced, by their numbers.
class Variant {
  public:
    enum Kind { Nothing, Everything, AllButLast, OnlyLast, LastTorn, Random, End = Random + 4 };

    Variant(int kind, std::size_t last, unsigned seed) : m_kind(kind), m_last(last), m_random(seed) {}

    bool Happens(std::size_t step) {
        switch (m_kind) {
            case Nothing:
                return false;
            case Everything:
            case LastTorn:
                return true;
            case AllButLast:
                return step != m_last;
            case OnlyLast:
                return step == m_last;
            default:
                return m_decided.try_emplace(step, Coin()).first->second;
        }
    }
    bool HasPiece(std::size_t step, std::size_t piece) {
        if (m_kind >= Random) return Coin();
        return m_kind != LastTorn || step != m_last || piece % 2 == 0;
    }
    bool Coin() { return m_random() % 2; }
    std::string Unwritten(std::size_t size) {
        std::string bytes(size, '\0');
        if (m_kind != Everything && Coin())
            std::ranges::generate(bytes, [this] { return static_cast<char>(m_random()); });
        return bytes;
    }

  private:
    const int m_kind;
    const std::size_t m_last;
    std::mt19937 m_random;
    std::map<std::size_t, bool> m_decided;
};

struct Node;
using NodePtr = std::shared_ptr<Node>;

// A write or, without bytes, a new length.
struct DataStep {
    std::size_t number;
    std::size_t offset;
    std::string bytes;
    std::size_t length;  // of the file then
    bool isThrough = false;
};

// A name that is given or taken.
struct NameStep {
    std::size_t number;
    std::string name;
    NodePtr node;           // whose name it is now
    std::string oldName{};  // which goes with the step, in the same folder
    NodePtr movedAway{};    // to another folder, by the step of the same number there
};

struct Node {
    bool isFolder = false;
    std::string synced{};  // of a file
    std::size_t length = 0;
    std::vector<DataStep> data{};  // since then
    std::map<std::string, NodePtr> syncedNames{}, names{};
    std::vector<NameStep> nameSteps{};

    void Sync() {
        Variant all(Variant::Everything, 0, 0);
        synced = Content(all);
        data.clear();
        syncedNames = names;
        nameSteps.clear();
    }

    std::string Content(Variant& variant) const {
        std::string content = synced;
        std::size_t size = content.size();
        for (const DataStep& step : data) {
            if (content.size() < step.length) content += variant.Unwritten(step.length - content.size());
            if (!step.isThrough && !variant.Happens(step.number)) continue;
            size = step.length;
            if (step.bytes.empty()) content.resize(size);
            for (std::size_t at = 0; at < step.bytes.size();) {
                const std::size_t place = step.offset + at;
                const std::size_t piece = std::min(PieceBytes - place % PieceBytes, step.bytes.size() - at);
                if (step.isThrough || variant.HasPiece(step.number, place / PieceBytes))
                    content.replace(place, piece, step.bytes, at, piece);
                at += piece;
            }
        }
        content.resize(size);
        return content;
    }
};

// The state after some of the steps.
class Disk {
  public:
    explicit Disk(FileIdentity root) : m_root(std::make_shared<Node>(Node{.isFolder = true})) {
        m_nodes[root] = m_root;
    }

    void Apply(const Step& step) {
        ++m_number;
        const NodePtr file = Find(step.file), folder = Find(step.folder), toFolder = Find(step.toFolder);
        switch (step.kind) {
            case Step::Kind::Open:
                if (folder && (!file || folder->names[step.name] != file)) Make(step, folder, false);
                if (folder && step.truncates) SetLength(*m_nodes[step.file], 0);
                break;
            case Step::Kind::MakeFolder:
                if (folder) Make(step, folder, true);
                break;
            case Step::Kind::Write:
                if (file && step.isThrough) file->data.back().isThrough = true;
                if (file && !step.isThrough) {
                    const auto offset = static_cast<std::size_t>(step.offset);
                    file->length = std::max(file->length, offset + step.bytes.size());
                    file->data.push_back({m_number, offset, step.bytes, file->length});
                }
                break;
            case Step::Kind::Truncate:
                if (file) SetLength(*file, static_cast<std::size_t>(step.offset));
                break;
            case Step::Kind::Unlink:
                if (!folder) break;
                folder->names.erase(step.name);
                folder->nameSteps.push_back({m_number, step.name, nullptr});
                break;
            case Step::Kind::Rename:
                if (folder && toFolder) Move(step, *folder, *toFolder);
                break;
            case Step::Kind::Sync:
                if (file) file->Sync();
                break;
            case Step::Kind::SyncFileSystem:
                for (const auto& [identity, node] : m_nodes)
                    node->Sync();
                break;
        }
    }

    // The number of the last step that was not synced, 0 when all were.
    std::size_t LastUnsynced() const {
        std::size_t last = 0;
        for (const auto& [identity, node] : m_nodes) {
            for (const DataStep& step : node->data)
                if (!step.isThrough) last = std::max(last, step.number);
            for (const NameStep& step : node->nameSteps)
                last = std::max(last, step.number);
        }
        return last;
    }

    void Build(const fs::path& path, Variant& variant) const {
        std::map<const Node*, fs::path> built;
        BuildFolder(path, *m_root, variant, built);
    }

  private:
    NodePtr Find(const FileIdentity& identity) const {
        const auto found = m_nodes.find(identity);
        return found == m_nodes.end() ? nullptr : found->second;
    }

    // The number of a file that is gone may be a new one's.
    void Make(const Step& step, const NodePtr& folder, bool isFolder) {
        const auto node = std::make_shared<Node>(Node{.isFolder = isFolder});
        m_nodes[step.file] = folder->names[step.name] = node;
        folder->nameSteps.push_back({m_number, step.name, node});
    }

    void SetLength(Node& file, std::size_t length) const {
        file.length = length;
        file.data.push_back({m_number, 0, {}, length});
    }

    void Move(const Step& step, Node& from, Node& to) const {
        const NodePtr node = from.names[step.name];
        from.names.erase(step.name);
        to.names[step.toName] = node;
        to.nameSteps.push_back({m_number, step.toName, node, &from == &to ? step.name : ""});
        if (&from != &to) from.nameSteps.push_back({m_number, step.name, nullptr, {}, node});
    }

    bool IsSynced(std::size_t number) const {
        return std::ranges::none_of(m_nodes, [number](const auto& entry) {
            return std::ranges::any_of(entry.second->nameSteps, [number](const NameStep& step) {
                return step.number == number && step.node;
            });
        });
    }

    // Folders have one name, on every file system.
    bool Happens(const NameStep& step, Variant& variant) const {
        if (!step.movedAway) return variant.Happens(step.number);
        if (!IsSynced(step.number)) return variant.Happens(step.number);
        return step.movedAway->isFolder || variant.Happens(step.number);
    }

    void BuildFolder(const fs::path& path, const Node& folder, Variant& variant,
                     std::map<const Node*, fs::path>& built) const {
        fs::create_directory(path);
        fs::permissions(path, fs::perms::owner_all);
        std::map<std::string, NodePtr> names = folder.syncedNames;
        for (const NameStep& step : folder.nameSteps) {
            if (!Happens(step, variant)) continue;
            names.erase(step.oldName);
            if (step.node)
                names[step.name] = step.node;
            else
                names.erase(step.name);
        }
        for (const auto& [name, node] : names) {
            const auto [place, isNew] = built.try_emplace(node.get(), path / name);
            if (node->isFolder) {
                if (isNew) BuildFolder(path / name, *node, variant, built);
            } else if (isNew) {
                std::ofstream(path / name, std::ios::binary) << node->Content(variant);
                fs::permissions(path / name, fs::perms::owner_read | fs::perms::owner_write);
            } else {
                fs::create_hard_link(place->second, path / name);
            }
        }
    }

    const NodePtr m_root;
    std::map<FileIdentity, NodePtr> m_nodes;
    std::size_t m_number = 0;
};

void Clear(const fs::path& folder) {
    for (const auto& entry : fs::directory_iterator(folder))
        fs::remove_all(entry.path());
}

}  // namespace

PowerCut::PowerCut()
    // In memory where the system has a place for that: here no sync is for the disk.
    : m_folder((fs::exists("/dev/shm") ? "/dev/shm" : fs::temp_directory_path()) /
               fs::path("tqtest-power-" + std::to_string(getpid()))) {
    fs::create_directory(m_folder);
    fs::permissions(m_folder, fs::perms::owner_all);
    g_steps = &m_steps;
    TheObserver() = [](const Step& step) {
        static std::mutex lock;
        const std::lock_guard guard(lock);
        g_steps->push_back(step);
        // On the disk only when it returns.
        if (step.isThrough) g_steps->insert(g_steps->end() - 1, step)->isThrough = false;
    };
}

PowerCut::~PowerCut() {
    End();
    fs::remove_all(m_folder);
}

void PowerCut::End() {
    TheObserver() = nullptr;
}

void PowerCut::ForEachImage(const std::function<void(std::size_t acknowledged)>& check) {
    struct stat info {};
    ASSERT_EQ(stat(m_folder.c_str(), &info), 0);
    Disk disk({info.st_dev, info.st_ino});
    for (std::size_t done = 0; done <= m_steps.size(); ++done) {
        if (done > 0) disk.Apply(m_steps[done - 1]);
        const std::size_t last = disk.LastUnsynced();
        const auto before = std::ranges::upper_bound(m_acknowledged, done) - m_acknowledged.begin();
        for (int kind = Variant::Nothing; kind < (last ? int{Variant::End} : int{Variant::Everything});
             ++kind) {
            SCOPED_TRACE("variant " + std::to_string(kind) + " after " + std::to_string(done) + " steps");
            Variant variant(kind, last, static_cast<unsigned>(done * Variant::End + kind));
            Clear(m_folder);
            disk.Build(m_folder, variant);
            check(static_cast<std::size_t>(before));
            if (testing::Test::HasFailure()) return;
        }
    }
}

}  // namespace Quellan::Corvel::Test
