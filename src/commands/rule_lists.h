// The four rule lists in "/var/config/": broadcast triggers, preconfigured
// messages, action triggers and authenticated users, each a run of the
// records of formats/rule_list_record.h. Changes are made by writing
// "/var/run/temp_file" and renaming it over the list.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/runtime.h"

namespace smsgw {

// The record texts of a rule file (each with its leading "^|^"), up to its
// end or its first damaged record; nullopt when the file cannot be opened.
std::optional<std::vector<std::string>> read_rule_records(const std::string& path);

class RuleLists {
  public:
    explicit RuleLists(const Runtime& rt) : rt_(rt) {}

    std::string add_broadcast_trigger(std::string_view keyword, std::string_view rest);
    std::string delete_broadcast_trigger(int index);
    std::string edit_broadcast_trigger(int index, std::string_view keyword, std::string_view rest);
    std::string add_preconf_sms(std::string_view text, std::string_view groups);
    std::string delete_preconf_sms(int index);
    std::string edit_preconf_sms(int index, std::string_view text, std::string_view rest);
    std::string set_action_trigger(std::string_view label, std::string_view keyword,
                                   std::string_view auth);
    std::string add_auth_user(std::string_view name, std::string_view number);
    std::string delete_auth_user(std::string_view name, std::string_view number);
    // Record count of a rule file, in decimal.
    std::string count_records(const std::string& path);

    // Upkeep when the address book changes. Members are NAME "]|[" NUMBER
    // "]|["; mode 1 deletes the old text, mode 0 replaces it by the new one.
    void update_trigger_members(std::string_view old_member, std::string_view new_member, int mode);
    // Same on the GROUPS field of the broadcast triggers and preconfigured
    // messages (group name without its "]|[").
    void update_rule_groups(std::string_view old_group, std::string_view new_group, int mode);

    // Real paths of the four lists.
    std::string broadcast_path() const { return rt_.path("/var/config/trigger_broadcast"); }
    std::string preconf_path() const { return rt_.path("/var/config/preconf_sms"); }
    std::string ctrl_path() const { return rt_.path("/var/config/trigger_ctrl"); }
    std::string auth_path() const { return rt_.path("/var/config/authenticate_list"); }

  private:
    const Runtime& rt_;
};

}  // namespace smsgw
