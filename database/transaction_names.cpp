#include "database/transaction_names.h"

#include <map>
#include <string>
#include <string_view>

namespace QV::DB {

namespace {

struct Tag_names {
    std::map<Db_tag, std::string> tag_to_name;
    std::map<std::string, Db_tag, std::less<>> name_to_tag;
};

Tag_names& names()
{
    static Tag_names* registry = new Tag_names();
    return *registry;
}

}  // namespace

bool tag_names_register(Db_tag tag, const char* name)
{
    if (tag == 0 || !name || !*name)
        return false;
    Tag_names& registry = names();
    registry.name_to_tag.insert_or_assign(std::string(name), tag);
    registry.tag_to_name.insert_or_assign(tag, std::string(name));
    return true;
}

void tag_names_drop(Db_tag tag)
{
    Tag_names& registry = names();
    auto found = registry.tag_to_name.find(tag);
    if (found == registry.tag_to_name.end())
        return;
    registry.name_to_tag.erase(found->second);
    registry.tag_to_name.erase(found);
}

const char* tag_names_tag_to_name(Db_tag tag)
{
    static std::string* answer = new std::string();
    const char* name = tag_names_lookup(tag);
    answer->assign(name ? name : "");
    return answer->empty() ? nullptr : answer->c_str();
}

Db_tag tag_names_name_to_tag(const char* name)
{
    if (!name || !*name)
        return 0;
    Tag_names& registry = names();
    auto found = registry.name_to_tag.find(std::string_view(name));
    return found == registry.name_to_tag.end() ? 0 : found->second;
}

const char* tag_names_lookup(Db_tag tag)
{
    Tag_names& registry = names();
    auto found = registry.tag_to_name.find(tag);
    return found == registry.tag_to_name.end() ? nullptr : found->second.c_str();
}

}  // namespace QV::DB
