// Charts as inline SVG, without script, style attributes or colours of their own: classes carry the
// looks, patterns tell the parts apart where there is no colour.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "admin/audit/time_bins.h"

namespace kova::admin {

/// One bar of a chart of horizontal bars.
struct BarRow {
  std::string label;                 ///< untrusted text
  std::vector<std::uint64_t> parts;  ///< by Ending, or one part
  std::string value;                 ///< at the bar's end
};

/// How long a bar is for its number.
enum class Scale { kLinear, kLogarithmic };

/// What a chart is called and what it says, for those who do not see it.
struct ChartTitle {
  std::string_view id;  ///< unique on the page
  std::string_view title;
  std::string description;
};

/// The patterns that the charts of a page share; stands once, before them.
[[nodiscard]] std::string chart_patterns();

[[nodiscard]] std::string bar_chart(const ChartTitle& title, const std::vector<BarRow>& rows,
                                    Scale scale);

/// One column of a chart of stacked columns.
struct Column {
  std::string tip;    ///< shown at the column
  std::string label;  ///< below the axis; may be empty
  Bin bin;
};

[[nodiscard]] std::string column_chart(const ChartTitle& title, const std::vector<Column>& columns);

}  // namespace kova::admin
