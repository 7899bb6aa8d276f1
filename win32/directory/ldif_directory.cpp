#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "win32/directory/directory_settings.h"
#include "win32/directory/directory_text.h"
#include "win32/directory/ldif_file.h"
#include "win32/files/root_files.h"

namespace win32 {

namespace {

using LDIF_POINTER = std::shared_ptr<const LDIF_DATA>;

bool ReadWhole(const std::string& path, std::string& bytes, std::string& complaint) {
    const DESCRIPTOR file(OpenRootFile(path, O_RDONLY | O_NONBLOCK));
    struct stat status {};
    const bool known = file && fstat(file.Get(), &status) == 0;
    if (known && (!S_ISREG(status.st_mode) || static_cast<size_t>(status.st_size) > MaxLdifBytes)) {
        complaint = path + " is not a plain file of at most 256 MiB";
        return false;
    }
    bytes.reserve(static_cast<size_t>(status.st_size));
    if (known && ReadToEnd(file.Get(), MaxLdifBytes, bytes)) return true;
    complaint = path + " cannot be read: " + FileFault(errno);
    return false;
}

LDIF_POINTER Load(const std::string& path, std::string& complaint) {
    std::string bytes;
    if (!ReadWhole(path, bytes, complaint)) return nullptr;
    LDIF_ERROR error;
    std::optional<LDIF_DATA> data = LDIF_DATA::Parse(bytes, error);
    if (data) return std::make_shared<const LDIF_DATA>(std::move(*data));
    complaint = path + ", line " + std::to_string(error.line) + ": " + error.reason;
    return nullptr;
}

// The last good state of the file, shared by all who search it.
class LDIF_STORE {
public:
    static LDIF_STORE& Current() {
        static LDIF_STORE& store = *new LDIF_STORE;
        return store;
    }

    LDIF_POINTER Data() {
        const std::lock_guard guard(lock);
        const std::string path = LdifPath();
        if (path != dataPath) {  // another machine root
            data = nullptr;
            mark = {};
        }
        dataPath = path;
        const std::optional<FILE_IDENTITY> now = LdifIdentity();
        if (!now) {
            ComplainOnce(path, path + " cannot be read: " + strerror(errno));
            mark = {};
            return data;
        }
        if (*now != mark) {
            mark = *now;
            std::string complaint;
            if (LDIF_POINTER loaded = Load(path, complaint)) {
                ForgetComplaints(path);
                data = std::move(loaded);
            } else {
                ComplainOnce(path, complaint);
            }
        }
        return data;
    }

private:
    std::mutex lock;
    FILE_IDENTITY mark;
    std::string dataPath;
    LDIF_POINTER data;
};

class LDIF_DIRECTORY final : public DIRECTORY {
public:
    explicit LDIF_DIRECTORY(LDIF_POINTER read) : data(std::move(read)) {}

    HRESULT Domains(DIRECTORY_DOMAINS& domains) override {
        domains = {data, &data->Domains()};
        return S_OK;
    }

    HRESULT Find(const std::string& base, const char* attribute, const std::string& value,
                 const ATTRIBUTE_NAMES& wanted, std::vector<DIRECTORY_ENTRY>& found) override {
        found.clear();
        const auto above = SplitDn(base);
        if (!above) return DirectoryInvalidDn;
        for (const DIRECTORY_ENTRY* entry : data->WithValue(attribute, value)) {
            const auto components = SplitDn(entry->dn);
            if (!components || !IsAtOrBelow(*components, *above)) continue;
            const HRESULT result = TakePart(*entry, wanted, found.emplace_back());
            if (FAILED(result)) return result;
        }
        return S_OK;
    }

    HRESULT Read(const std::string& dn, const ATTRIBUTE_NAMES& wanted, DIRECTORY_ENTRY& entry) override {
        const auto components = SplitDn(dn);
        if (!components) return DirectoryInvalidDn;
        const DIRECTORY_ENTRY* const found = data->AtDn(*components);
        if (found == nullptr) return DirectoryNoSuchObject;
        return TakePart(*found, wanted, entry);
    }

    HRESULT ReadSid(const std::string& sid, const ATTRIBUTE_NAMES& wanted, DIRECTORY_ENTRY& entry) override {
        const std::vector<const DIRECTORY_ENTRY*> found = data->WithValue("objectSid", sid);
        if (found.empty()) return DirectoryNoSuchObject;
        if (found.size() > 1) return DirectoryNotUnique;
        return TakePart(*found[0], wanted, entry);
    }

private:
    // The wanted attributes only: a group's entry may list a hundred thousand members. As with a server, an object of
    // which not all can be read is not given.
    static HRESULT TakePart(const DIRECTORY_ENTRY& whole, const ATTRIBUTE_NAMES& wanted, DIRECTORY_ENTRY& part) {
        part = {whole.dn, {}};
        for (const char* name : wanted) {
            if (IsCutOff(whole, name)) {
                const std::string path = LdifPath();
                ComplainOnce(path, path + ": an entry's " + name +
                                       " is cut off (it has \";range=\"): export its other parts too");
                return DirectoryDecodingError;
            }
            if (const std::vector<std::string>* values = whole.Values(name))
                part.attributes.emplace_back(name, *values);
        }
        return S_OK;
    }

    LDIF_POINTER data;
};

}  // namespace

HRESULT OpenLdifDirectory(std::unique_ptr<DIRECTORY>& directory) {
    LDIF_POINTER data = LDIF_STORE::Current().Data();
    if (!data) return DirectoryServerDown;
    directory = std::make_unique<LDIF_DIRECTORY>(std::move(data));
    return S_OK;
}

LDIF_STATE CheckLdifFile() {
    LDIF_STATE state;
    const LDIF_POINTER data = Load(LdifPath(), state.complaint);
    if (!data) return state;
    state.entries = data->Entries().size();
    for (const DIRECTORY_ENTRY& entry : data->Entries()) state.cutOff += IsCutOff(entry, "memberOf") ? 1 : 0;
    return state;
}

}  // namespace win32
