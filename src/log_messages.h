// Every message of the update log. Readers of the log match these texts, so they stay as they are,
// misspellings included. %s is a module name unless a comment says otherwise.
#pragma once

namespace log_messages {

// Any type. Transfers log the first two; the number is libcurl's result code.
inline constexpr char kTransferInitFailed[] = "CUrlOp::url_down_file: init easy_handle failed";
inline constexpr char kTransferFailed[] = "CUrlOp::url_down_file: curl_easy_perform failed[%d]";
inline constexpr char kUnknownType[] = "Unknow update type.";

// Type 0, before the installation.
// %s: the path of config.xml.
inline constexpr char kSoftMethodUnreadable[] =
    "[SOFT] call get_update_method function failed, config path: %s";
inline constexpr char kSoftConfigUnreadable[] = "[SOFT] read config.xml fail";
inline constexpr char kSoftManual[] =
    "[SOFT] update type is manual, but this is autoupdate subroutine";
// %s: the URL, and the path of the downloaded file.
inline constexpr char kSoftVersionDownloadFailed[] =
    "[SOFT] download file failed [url: %s] [file: %s]";
inline constexpr char kSoftVersionUnknown[] =
    "[SOFT] call check_norvak_new_version_exist->download_norvak_version_file faild";
inline constexpr char kSoftNotNeeded[] =
    "[SOFT] norvak is not need to update, or check new version fail";

// Type 0, the installation.
inline constexpr char kSoftPackageDownloadFailed[] =
    "[SOFT] call run_update_norvak_agent->download_norvak_update_package failed";
inline constexpr char kSoftUnpackFailed[] = "call decompress_package failed";
inline constexpr char kSoftScriptFailed[] = "call exec_script failed";
inline constexpr char kSoftInstallFailed[] =
    "[SOFT] call run_update_norvak_agent->update_now failed";
inline constexpr char kSoftCarryOverFailed[] =
    "[SOFT] call run_update_norvak_agent->update_config failed";
inline constexpr char kSoftUpdated[] = "[SOFT] update norvak agent success";
inline constexpr char kSoftFailed[] = "[SOFT] update norvak agent failed";

// Type 1.
inline constexpr char kKernelListDownloadFailed[] = "[KERNEL] download %s MD5 failed";
inline constexpr char kKernelListUnreadable[] = "[KERNEL] open MD5 template file failed";
inline constexpr char kKernelListAbnormal[] = "[KERNEL] download MD5 file is abnormal";
inline constexpr char kKernelCheckFailed[] = "[KERNEL] check kernel %s MD5 failed";
inline constexpr char kKernelCurrent[] = "[KERNEL] don't need to download %s";
inline constexpr char kKernelModuleDownloadFailed[] = "[KERNEL] download %s kernel failed";
inline constexpr char kKernelModuleRefused[] = "[KERNEL] check download %s kernel MD5 false";
inline constexpr char kKernelModuleVerified[] = "[KERNEL] check download %s kernel MD5 success";
inline constexpr char kKernelUpdated[] = "[KERNEL] download kernel %s success";
inline constexpr char kKernelFailed[] = "[KERNEL] download kernel %s failed";

// Type 2. The first two have no blank after the tag.
inline constexpr char kNginxNotNew[] = "[NGINX]is not new version";
inline constexpr char kNginxDownloading[] = "[NGINX]new version is exist, download now";
inline constexpr char kNginxUpdated[] = "[NGINX] download nginx success";
inline constexpr char kNginxFailed[] = "[NGINX] download nginx failed";

// Type 3.
inline constexpr char kRulesCurrent[] = "[RULES] don't need to update";
inline constexpr char kRulesRefused[] = "download_tarn_rules_file: check download rule MD5 false";
inline constexpr char kRulesVerified[] =
    "download_tarn_rules_file: check download rule MD5 success";
inline constexpr char kRulesUpdated[] = "[RULES] update tarn rules success";
inline constexpr char kRulesFailed[] = "[RULES] update tarn rules failed";

}  // namespace log_messages
