// The package records: plain values, copied member by member.
#include "pkg_manager.h"

namespace QUORPackageTool {

PackageBasicInfoExtra::PackageBasicInfoExtra() = default;
PackageBasicInfoExtra::PackageBasicInfoExtra(const PackageBasicInfoExtra&) = default;
PackageBasicInfoExtra& PackageBasicInfoExtra::operator=(const PackageBasicInfoExtra&) = default;
PackageBasicInfoExtra::~PackageBasicInfoExtra() = default;

PackageBasicInfo::PackageBasicInfo() : number(0), flag(false) {}
PackageBasicInfo::PackageBasicInfo(const PackageBasicInfo&) = default;
PackageBasicInfo& PackageBasicInfo::operator=(const PackageBasicInfo&) = default;
PackageBasicInfo::~PackageBasicInfo() = default;

PackageInfoExtra::PackageInfoExtra() = default;
PackageInfoExtra::PackageInfoExtra(const PackageInfoExtra&) = default;
PackageInfoExtra& PackageInfoExtra::operator=(const PackageInfoExtra&) = default;
PackageInfoExtra::~PackageInfoExtra() = default;

PackageInfo::PackageInfo()
    : beta(false),
      flag_b(false),
      flag_c(false),
      word_a(0),
      word_b(0),
      word_c(0),
      word_d(0),
      admin_port(0),
      script_mask(0),
      word_e(0),
      word_f(0),
      flag_d(false),
      flag_e(false),
      flag_f(false),
      flag_g(false),
      word_g(0),
      number_a(0),
      word_h(0),
      flag_h(false),
      flag_i(false),
      flag_j(false),
      word_i(0),
      number_b(0) {}
PackageInfo::PackageInfo(const PackageInfo&) = default;
PackageInfo& PackageInfo::operator=(const PackageInfo&) = default;
PackageInfo::~PackageInfo() = default;

}  // namespace QUORPackageTool
