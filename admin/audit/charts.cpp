#include "admin/audit/charts.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "admin/audit/html.h"
#include "admin/audit/report_formats.h"
#include "admin/common/markup.h"

namespace kova::admin {

namespace {

/// Units of the drawing: it is shown about as wide as a phone, and wider on a desk.
constexpr double kWidth = 400;
constexpr double kLabelWidth = 128;
constexpr double kValueWidth = 62;
constexpr double kBarWidth = kWidth - kLabelWidth - kValueWidth - 8;
constexpr double kRowHeight = 22;
constexpr double kBarHeight = 13;
constexpr std::size_t kLabelLimit = 19;

constexpr double kPlotLeft = 46;
constexpr double kPlotTop = 10;
constexpr double kPlotHeight = 120;
constexpr double kPlotWidth = kWidth - kPlotLeft - 6;

constexpr const char* kPartClasses[kEndings] = {"ok", "refused", "failed"};

std::string opening(const ChartTitle& title, double height) {
  return fmt::format(
      "<svg class=\"chart\" viewBox=\"0 0 {:g} {:g}\" role=\"img\" aria-labelledby=\"{}-t {}-d\">"
      "<title id=\"{}-t\">{}</title><desc id=\"{}-d\">{}</desc>",
      kWidth, height, title.id, title.id, title.id, escape_markup(title.title), title.id,
      html_text(title.description));
}

std::uint64_t sum_of(const std::vector<std::uint64_t>& parts) {
  std::uint64_t sum = 0;
  for (const std::uint64_t part : parts) sum += part;
  return sum;
}

double scaled(std::uint64_t number, Scale scale) {
  const auto value = static_cast<double>(number);
  return scale == Scale::kLinear ? value : std::log10(1 + value);
}

std::string rect(const char* name, double x, double y, double width, double height) {
  return fmt::format(
      "<rect class=\"{}\" x=\"{:.2f}\" y=\"{:.2f}\" width=\"{:.2f}\" "
      "height=\"{:.2f}\"/>",
      name, x, y, width, height);
}

std::string bar_label(const std::string& label) {
  return label.size() <= kLabelLimit ? shown(label)
                                     : shown(label.substr(0, kLabelLimit - 2)) + "..";
}

/// The smallest of 1, 2 or 5 times a power of ten that is not below the number.
std::uint64_t round_up(std::uint64_t number) {
  for (std::uint64_t step = 1; step < UINT64_MAX / 10; step *= 10) {
    for (const std::uint64_t factor : {1U, 2U, 5U}) {
      if (step * factor >= number) return step * factor;
    }
  }
  return number;
}

/// Short enough for the axis: 1,500,000 is 1.5M.
std::string axis_number(std::uint64_t number) {
  const auto value = static_cast<double>(number);
  if (number >= 1000000000) return fmt::format("{:g}G", value / 1e9);
  if (number >= 1000000) return fmt::format("{:g}M", value / 1e6);
  return number >= 10000 ? fmt::format("{:g}k", value / 1e3) : fmt::format("{}", number);
}

std::string axis(std::uint64_t top) {
  std::string svg;
  for (const int quarter : {0, 2, 4}) {
    const double y = kPlotTop + kPlotHeight * (1 - quarter / 4.0);
    svg += fmt::format("<line class=\"grid\" x1=\"{:g}\" x2=\"{:g}\" y1=\"{:g}\" y2=\"{:g}\"/>",
                       kPlotLeft, kPlotLeft + kPlotWidth, y, y);
    // Half of an odd number would be shown wrongly.
    if (quarter == 2 && top % 2 != 0) continue;
    svg += fmt::format("<text class=\"end\" x=\"{:g}\" y=\"{:g}\">{}</text>", kPlotLeft - 5, y + 4,
                       axis_number(top / 4 * static_cast<unsigned>(quarter) +
                                   top % 4 * static_cast<unsigned>(quarter) / 4));
  }
  return svg;
}

}  // namespace

std::string chart_patterns() {
  return "<svg class=\"patterns\" width=\"0\" height=\"0\" aria-hidden=\"true\" "
         "focusable=\"false\"><defs>"
         "<pattern id=\"hatch\" width=\"5\" height=\"5\" patternUnits=\"userSpaceOnUse\" "
         "patternTransform=\"rotate(45)\"><rect class=\"refused-ground\" width=\"5\" "
         "height=\"5\"/><rect class=\"refused-ink\" width=\"2\" height=\"5\"/></pattern>"
         "<pattern id=\"dots\" width=\"4\" height=\"4\" patternUnits=\"userSpaceOnUse\">"
         "<rect class=\"failed-ground\" width=\"4\" height=\"4\"/>"
         "<circle class=\"failed-ink\" cx=\"2\" cy=\"2\" r=\"1\"/></pattern>"
         "</defs></svg>\n";
}

std::string bar_chart(const ChartTitle& title, const std::vector<BarRow>& rows, Scale scale) {
  std::uint64_t largest = 1;
  for (const BarRow& row : rows) largest = std::max(largest, sum_of(row.parts));
  std::string svg = opening(title, kRowHeight * static_cast<double>(rows.size()) + 6);
  double y = 4;
  for (const BarRow& row : rows) {
    svg +=
        fmt::format("<g><title>{}: {}</title><text class=\"end\" x=\"{:g}\" y=\"{:g}\">{}</text>",
                    html_text(row.label), escape_markup(row.value), kLabelWidth - 6,
                    y + kBarHeight - 2, escape_markup(bar_label(row.label)));
    double x = kLabelWidth;
    const std::uint64_t sum = std::max<std::uint64_t>(sum_of(row.parts), 1);
    const double length = kBarWidth * scaled(sum_of(row.parts), scale) / scaled(largest, scale);
    for (std::size_t part = 0; part < row.parts.size(); ++part) {
      if (row.parts[part] == 0) continue;
      const double width = length * static_cast<double>(row.parts[part]) / static_cast<double>(sum);
      svg += rect(kPartClasses[part], x, y, std::max(width, 0.5), kBarHeight);
      x += width;
    }
    svg += fmt::format("<text x=\"{:.2f}\" y=\"{:g}\">{}</text></g>", kLabelWidth + length + 5,
                       y + kBarHeight - 2, escape_markup(row.value));
    y += kRowHeight;
  }
  return svg + "</svg>\n";
}

std::string column_chart(const ChartTitle& title, const std::vector<Column>& columns) {
  std::uint64_t largest = 1;
  for (const Column& column : columns) largest = std::max(largest, column.bin.total());
  const std::uint64_t top = round_up(largest);
  std::string svg = opening(title, kPlotTop + kPlotHeight + 26) + axis(top);
  const double step = kPlotWidth / static_cast<double>(std::max<std::size_t>(columns.size(), 1));
  const double width = step > 4 ? step - 1 : step;
  double x = kPlotLeft;
  for (const Column& column : columns) {
    if (column.bin.total() > 0) {
      svg += fmt::format("<g><title>{}</title>", html_text(column.tip));
      double y = kPlotTop + kPlotHeight;
      for (std::size_t part = 0; part < kEndings; ++part) {
        if (column.bin.calls[part] == 0) continue;
        const double height =
            kPlotHeight * static_cast<double>(column.bin.calls[part]) / static_cast<double>(top);
        y -= height;
        svg += rect(kPartClasses[part], x, y, width, height);
      }
      svg += "</g>";
    }
    if (!column.label.empty()) {
      const bool at_right = x > kPlotLeft + kPlotWidth * 0.75;
      svg += fmt::format("<text class=\"{}\" x=\"{:.2f}\" y=\"{:g}\">{}</text>",
                         at_right ? "end" : "start", at_right ? x + width : x,
                         kPlotTop + kPlotHeight + 16, escape_markup(column.label));
    }
    x += step;
  }
  return svg + "</svg>\n";
}

}  // namespace kova::admin
