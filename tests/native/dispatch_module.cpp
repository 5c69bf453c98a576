// Lets the tests ask for the decisions of the linear dispatch, the registry, the version test, and the readers of the
// formats of 256 elements, without a device.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <map>
#include <string>
#include <vector>

#include "formats/grid.h"
#include "formats/planes.h"
#include "formats/registry.h"
#include "formats/super_block.h"
#include "linear/dispatch.h"
#include "module/interpreter_version.h"
#include "native_test.h"

namespace py = pybind11;

namespace {

std::map<std::string, std::string> variables;
std::vector<std::string> variables_read;

const char* read_variable(const char* name) {
  variables_read.emplace_back(name);
  const auto found = variables.find(name);
  return found == variables.end() ? nullptr : found->second.c_str();
}

std::vector<uint64_t> without_trailing_ones(const std::array<uint64_t, 2>& range) {
  if (range[1] == 1) return {range[0]};
  return {range[0], range[1]};
}

py::dict as_dict(const orrery::linear_decision& d) {
  py::dict out;
  out["family"] = orrery::family_name(d.family);
  out["kernel"] = d.kernel;
  out["record"] = d.record;
  out["global"] = py::tuple(py::cast(without_trailing_ones(d.global)));
  out["local"] = py::tuple(py::cast(without_trailing_ones(d.local)));
  out["sub_group"] = d.shape.sub_group;
  out["work_group"] = d.shape.work_group;
  out["rows"] = d.shape.rows;
  out["row_multiple"] = d.row_multiple;
  out["scale_offset"] = d.scale_offset;
  out["quantizes_input"] = d.quantizes_input;
  out["waits"] = d.waits;
  out["tail"] = d.tail;
  out["tile_rows"] = d.tile_rows;
  out["tiles"] = d.tiles;
  return out;
}

// The decision, and in "read" the variables that were asked for, in order.
py::dict decide(int32_t qtype, const std::string& type, int64_t n, uint64_t state_size, uint64_t output_size,
                int64_t seq_hint, uint32_t device_class, const std::map<std::string, std::string>& environment) {
  orrery::linear_request request{
      orrery::weight_format{qtype}, scalar_type(type), n, state_size, output_size, seq_hint, device_class, {}};
  variables = environment;
  variables_read.clear();
  request.settings = orrery::read_settings(request, read_variable);
  py::dict out = as_dict(orrery::decide(request));
  out["read"] = py::cast(variables_read);
  return out;
}

py::bytes as_bytes(const std::vector<float>& values) {
  return py::bytes(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float));
}

const uint8_t* data(std::string_view bytes) { return reinterpret_cast<const uint8_t*>(bytes.data()); }

// Floats of a whole number of blocks: by the value rule, and by the reader of sixteen at once.
template <typename Format>
py::tuple block_values(const py::bytes& blocks) {
  const std::string_view bytes(blocks);
  std::vector<float> rule, reader;
  for (size_t at = 0; at + Format::bytes <= bytes.size(); at += Format::bytes) {
    const uint8_t* block = data(bytes) + at;
    for (int e = 0; e < 256; ++e) rule.push_back(Format::value(block, e));
    for (int h = 0; h < 16; ++h) {
      float sixteen[16];
      Format::values(block, h).store(sixteen);
      reader.insert(reader.end(), sixteen, sixteen + 16);
    }
  }
  return py::make_tuple(as_bytes(rule), as_bytes(reader));
}

// Every part's dot product of blocks with activations: part by part, and, on machines that have the instructions, as
// many at once as the format takes.
template <typename Format>
py::tuple block_dots(const py::bytes& blocks, const py::bytes& activations) {
  using orrery::formats::q8_1;
  const std::string_view bytes(blocks), other(activations);
  std::vector<float> parts, at_once;
  const size_t count = bytes.size() / Format::bytes;
  for (size_t b = 0; b < count; ++b) {
    for (int part = 0; part < Format::parts; ++part) {
      parts.push_back(Format::dot(data(bytes) + b * Format::bytes, data(other) + 8 * b * q8_1::bytes, part));
    }
  }
#ifdef ORRERY_BYTE_DOTS
  constexpr int unit = Format::blocks_at_once, lanes = unit * Format::parts;
  for (size_t b = 0; b + unit <= count; b += unit) {
    typename Format::inputs in;
    in.fill(data(other) + 8 * b * q8_1::bytes, 8 * unit);
    float some[lanes];
    Format::dots(data(bytes) + b * Format::bytes, in).store(some);
    at_once.insert(at_once.end(), some, some + lanes);
  }
#endif
  return py::make_tuple(as_bytes(parts), as_bytes(at_once));
}

py::tuple values_of(int32_t code, const py::bytes& blocks) {
  namespace f = orrery::formats;
  switch (code) {
    case 21:
      return block_values<f::iq2_xxs>(blocks);
    case 23:
      return block_values<f::q2_k>(blocks);
    case 24:
      return block_values<f::iq1_s>(blocks);
    case 26:
      return block_values<f::q6_k>(blocks);
    case 27:
      return block_values<f::q4_k>(blocks);
    case 28:
      return block_values<f::q5_k>(blocks);
  }
  throw std::invalid_argument("no format of 256 elements has this code");
}

py::tuple dots_of(int32_t code, const py::bytes& blocks, const py::bytes& activations) {
  namespace f = orrery::formats;
  switch (code) {
    case 21:
      return block_dots<f::iq2_xxs>(blocks, activations);
    case 23:
      return block_dots<f::q2_k>(blocks, activations);
    case 24:
      return block_dots<f::iq1_s>(blocks, activations);
  }
  throw std::invalid_argument("no format with integer dot products has this code");
}

// Positions of the scales and of the top bits behind the quants, None for a plane that the half values don't need.
py::tuple planes(int32_t code, uint64_t output_size, uint64_t state_size) {
  const auto* weight = reinterpret_cast<const uint8_t*>(64);
  const auto all = orrery::formats::planes_of(orrery::weight_format{code}, weight, output_size, state_size);
  const auto position = [&](const uint8_t* plane) { return plane ? py::object(py::int_(plane - weight)) : py::none(); };
  return py::make_tuple(position(all.scales), position(all.top_bits));
}

bool version_fits(const std::string& version) {
  if (!orrery::interpreter_fits(version.c_str())) throw py::error_already_set();
  return true;
}

}  // namespace

PYBIND11_MODULE(orrery_dispatch, m) {
  m.def("decide", decide, py::arg("qtype"), py::arg("type"), py::arg("n"), py::arg("state_size"),
        py::arg("output_size"), py::arg("seq_hint") = 0, py::arg("device_class") = 3,
        py::arg("environment") = std::map<std::string, std::string>{});
  m.def("device_class_of", [](const std::string& name) { return orrery::device_class_of(name); });
  m.def("version_fits", version_fits);
  m.def("block_values", values_of);
  m.def("block_dots", dots_of);
  m.def("rows_of_weight", [](int32_t code, uint64_t bytes, uint64_t state_size) {
    return orrery::rows_of_weight(orrery::weight_format{code}, bytes, state_size);
  });
  m.def("scale_offset", [](int32_t code, uint64_t output_size, uint64_t state_size) {
    return orrery::scale_offset(orrery::weight_format{code}, output_size, state_size);
  });
  m.def("planes", planes);
  m.def("format_name", [](int32_t code) {
    const orrery::format_row* row = orrery::find_weight_format(orrery::weight_format{code});
    return row == nullptr ? std::string() : std::string(row->name);
  });
  m.attr("block_elems") = py::cast(orrery::block_elems);
  m.attr("block_bytes") = py::cast(orrery::block_bytes);
}
