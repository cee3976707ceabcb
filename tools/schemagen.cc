// schemagen: turns one message schema into its message module, a header and a
// source file of flat-named C++ over protocol/message.h.
//
//   schemagen SCHEMA-FILE OUTPUT-DIRECTORY
//
// writes OUTPUT-DIRECTORY/<schema>.h and OUTPUT-DIRECTORY/<schema>.cc, where
// <schema> is the name the file declares. The schema language:
//
//   # comments run to the end of the line
//   schema image::appsrv_protocol_request
//   root {
//     type: variant {
//       delete [0] { stack_name: text }
//       list [1] {}
//     }
//   }
//
// A record lists its fields in wire order, which is the ascending byte-wise
// order of their names; a variant lists its alternatives the same way, each
// with its tag, which is its position. Field kinds: `text`, `natural`,
// `collection of text` and `variant { ... }`. The generator checks the order
// and the tags instead of silently sorting, so that the file always reads the
// way the bytes go.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

// ---- schema model ------------------------------------------------------

enum class Kind { text, natural, collection, variant };

struct Alternative;

struct Field {
  std::string name;
  Kind kind = Kind::text;
  std::vector<Alternative> alternatives;  // variant only
};

struct Record {
  std::vector<Field> fields;
};

struct Alternative {
  std::string name;
  unsigned tag = 0;
  Record record;
};

struct Schema {
  std::string space;  // "image"
  std::string name;  // "appsrv_protocol_request"
  Record root;
  std::string source;  // the schema file's text, quoted in the header
};

// ---- reading the schema file -------------------------------------------

struct Token {
  std::string text;  // empty at the end of the file
  int line = 0;
};

class Parser {
 public:
  Parser(std::string path, const std::string& text) : path_(std::move(path)) { tokenize(text); }

  Schema parse() {
    Schema schema;
    expect("schema");
    schema.space = name("namespace");
    expect("::");
    schema.name = name("schema name");
    expect("root");
    schema.root = record("root");
    if (schema.root.fields.size() != 1 || schema.root.fields[0].kind != Kind::variant)
      fail("the root record holds exactly one field, a variant");
    if (!peek().text.empty()) fail("unexpected '" + peek().text + "' after the root record");
    return schema;
  }

 private:
  void tokenize(const std::string& text) {
    int line = 1;
    for (size_t i = 0; i < text.size();) {
      char c = text[i];
      if (c == '\n') line++;
      if (isspace(static_cast<unsigned char>(c))) {
        i++;
      } else if (c == '#') {
        while (i < text.size() && text[i] != '\n') i++;
      } else if (isalnum(static_cast<unsigned char>(c)) || c == '_') {
        size_t start = i;
        while (i < text.size() && (isalnum(static_cast<unsigned char>(text[i])) || text[i] == '_')) i++;
        tokens_.push_back({text.substr(start, i - start), line});
      } else if (text.compare(i, 2, "::") == 0) {
        tokens_.push_back({"::", line});
        i += 2;
      } else {
        tokens_.push_back({std::string(1, c), line});
        i++;
      }
    }
    tokens_.push_back({"", line});
  }

  [[noreturn]] void fail(const std::string& message) {
    fprintf(stderr, "%s:%d: %s\n", path_.c_str(), peek().line, message.c_str());
    exit(1);
  }

  const Token& peek() const { return tokens_[next_]; }
  std::string take() { return tokens_[next_].text.empty() ? "" : tokens_[next_++].text; }

  void expect(const std::string& text) {
    if (peek().text != text) fail("expected '" + text + "', found '" + peek().text + "'");
    next_++;
  }

  // Names become parts of C identifiers joined by "___", so they are
  // lower-case words that cannot run into that separator.
  std::string name(const char* what) {
    std::string text = peek().text;
    bool good = !text.empty() && islower(static_cast<unsigned char>(text[0])) && text.find("__") == std::string::npos &&
                text.back() != '_';
    for (char c : text) good = good && (islower(static_cast<unsigned char>(c)) || isdigit(static_cast<unsigned char>(c)) || c == '_');
    if (!good) fail(std::string("expected a ") + what + " (lower-case letters, digits, single underscores), found '" + text + "'");
    next_++;
    return text;
  }

  Record record(const std::string& where) {
    Record result;
    expect("{");
    while (peek().text != "}") {
      if (peek().text.empty()) fail("unterminated record " + where);
      Field field;
      field.name = name("field name");
      if (reserved().count(field.name) != 0) fail("field name '" + field.name + "' is a C++ keyword");
      if (!result.fields.empty() && result.fields.back().name >= field.name)
        fail("fields of " + where + " go in ascending byte-wise order: '" + field.name + "' must come before '" +
             result.fields.back().name + "'");
      expect(":");
      kind(field, where + "." + field.name);
      result.fields.push_back(std::move(field));
    }
    expect("}");
    return result;
  }

  void kind(Field& field, const std::string& where) {
    std::string word = take();
    if (word == "text") {
      field.kind = Kind::text;
    } else if (word == "natural") {
      field.kind = Kind::natural;
    } else if (word == "collection") {
      field.kind = Kind::collection;
      expect("of");
      expect("text");
    } else if (word == "variant") {
      field.kind = Kind::variant;
      variant(field, where);
    } else {
      fail("unknown field kind '" + word + "' (text, natural, collection of text, variant)");
    }
  }

  void variant(Field& field, const std::string& where) {
    expect("{");
    while (peek().text != "}") {
      if (peek().text.empty()) fail("unterminated variant " + where);
      Alternative alternative;
      alternative.name = name("alternative name");
      if (!field.alternatives.empty() && field.alternatives.back().name >= alternative.name)
        fail("alternatives of " + where + " go in ascending byte-wise order: '" + alternative.name +
             "' must come before '" + field.alternatives.back().name + "'");
      expect("[");
      std::string number = take();
      alternative.tag = static_cast<unsigned>(field.alternatives.size());
      if (number != std::to_string(alternative.tag))
        fail("the tag of " + where + "." + alternative.name + " is its position, " + std::to_string(alternative.tag));
      expect("]");
      alternative.record = record(where + "." + alternative.name);
      field.alternatives.push_back(std::move(alternative));
    }
    expect("}");
    if (field.alternatives.empty()) fail("variant " + where + " has no alternatives");
  }

  static const std::set<std::string>& reserved() {
    static const std::set<std::string> words = {
        "alignas", "alignof", "and", "asm", "auto", "bool", "break", "case", "catch", "char", "class", "const",
        "constexpr", "continue", "default", "delete", "do", "double", "else", "enum", "explicit", "export",
        "extern", "false", "float", "for", "friend", "goto", "if", "inline", "int", "long", "mutable", "namespace",
        "new", "not", "operator", "or", "private", "protected", "public", "register", "return", "short", "signed",
        "sizeof", "static", "struct", "switch", "template", "this", "throw", "true", "try", "typedef", "typeid",
        "typename", "union", "unsigned", "using", "virtual", "void", "volatile", "while", "xor", "context",
        "failure_hook", "failure_reason"};
    return words;
  }

  std::string path_;
  std::vector<Token> tokens_;
  size_t next_ = 0;
};

// ---- the node types of a schema ----------------------------------------

// One record of the tree with everything its code needs to be named.
struct Node {
  const Record* record;
  std::vector<std::string> path;  // {"root", "type", "delete"}
  int holder = -1;  // index of the node that holds this one's variant; -1 for the root
  const Field* variant = nullptr;  // the variant this node is an alternative of
  unsigned tag = 0;
};

std::string join(const std::vector<std::string>& parts, const std::string& separator) {
  std::string result;
  for (const std::string& part : parts) result += (result.empty() ? "" : separator) + part;
  return result;
}

class Generator {
 public:
  explicit Generator(const Schema& schema) : schema_(schema), prefix_(schema.space + "___" + schema.name + "___") {
    collect(&schema.root, {"root"}, -1, nullptr, 0);
  }

  std::string header() const;
  std::string source() const;

 private:
  void collect(const Record* record, std::vector<std::string> path, int holder, const Field* variant, unsigned tag) {
    int index = static_cast<int>(nodes_.size());
    nodes_.push_back({record, path, holder, variant, tag});
    for (const Field& field : record->fields)
      for (const Alternative& alternative : field.alternatives) {
        std::vector<std::string> inner = path;
        inner.push_back(field.name);
        inner.push_back(alternative.name);
        collect(&alternative.record, inner, index, &field, alternative.tag);
      }
  }

  // Flat names: root_t, root___type___delete_t, and the collection type
  // root___status___success___type___data___stack_names_t.
  std::string type(const Node& node) const { return prefix_ + join(node.path, "___") + "_t"; }
  std::string collection_type(const Node& node, const Field& field) const {
    return prefix_ + join(node.path, "___") + "___" + field.name + "_t";
  }
  std::string field_op(const Node& node, const Field& field, const std::string& op) const {
    return type(node) + "___" + field.name + "___" + op;
  }
  // The named tag of an alternative: root_t___type___tag___delete.
  std::string tag_name(const Node& node, const Field& field, const Alternative& alternative) const {
    return field_op(node, field, "tag___" + alternative.name);
  }
  std::string dotted(const Node& node) const { return join(node.path, "."); }
  // File-local helpers use single underscores: identifiers with a double one
  // are reserved to the flat names of the module's interface.
  std::string local(const std::string& what, const Node& node) const { return what + "_" + join(node.path, "_"); }
  std::string refusal(const Field& field) const { return "\"reassigning property: " + field.name + "\""; }

  std::string describe(const Node& node) const;
  void declare_node(std::string& out, const Node& node) const;
  void define_node(std::string& out, const Node& node) const;
  void define_reader(std::string& out, const Node& node) const;
  void define_writer(std::string& out, const Node& node) const;
  const Node& child(const Node& node, const Field& field, const Alternative& alternative) const;

  const Schema& schema_;
  std::string prefix_;
  std::vector<Node> nodes_;
};

std::string Generator::describe(const Node& node) const {
  if (node.holder < 0) return "root: the top record";
  return dotted(node) + ": alternative [" + std::to_string(node.tag) + "] of " + dotted(nodes_[node.holder]) + "." +
         node.variant->name;
}

const Node& Generator::child(const Node& node, const Field& field, const Alternative& alternative) const {
  for (const Node& candidate : nodes_)
    if (candidate.variant == &field && candidate.record == &alternative.record) return candidate;
  (void)node;
  fprintf(stderr, "schemagen: internal error: no node for %s\n", alternative.name.c_str());
  exit(1);
}

// ---- header ------------------------------------------------------------

std::string Generator::header() const {
  std::string out;
  out += "// The message module " + schema_.space + "::" + schema_.name + ", generated by schemagen.\n";
  out += "// Do not edit: change the schema file and rebuild. The schema, as written:\n//\n";
  std::istringstream lines(schema_.source);
  for (std::string line; std::getline(lines, line);) out += line.empty() ? "//\n" : "//   " + line + "\n";
  out += "//\n// The encoding, the write-once setters, the failure reasons and the recovery\n";
  out += "// point are the common ones of protocol/message.h.\n";
  out += "#pragma once\n\n#include <cstdint>\n\n#include \"protocol/message.h\"\n\n";

  out += "// ---- node types: every record starts with its context reference ----\n\n";
  for (const Node& node : nodes_) {
    out += "// " + describe(node) + "\n";
    out += "struct " + type(node) + (node.holder < 0 ? " : message_root {\n" : " : message_node {\n");
    for (const Field& field : node.record->fields) {
      switch (field.kind) {
        case Kind::text: out += "  message_text " + field.name + ";\n"; break;
        case Kind::natural: out += "  message_natural " + field.name + ";  // at least 1 once set\n"; break;
        case Kind::collection: out += "  message_collection " + field.name + ";  // ordered set of unique texts\n"; break;
        case Kind::variant: {
          std::string tags;
          for (const Alternative& alternative : field.alternatives)
            tags += (tags.empty() ? "" : ", ") + alternative.name + " [" + std::to_string(alternative.tag) + "]";
          out += "  message_variant " + field.name + ";  // " + tags + "\n";
          break;
        }
      }
    }
    out += "};\n\n";
  }

  std::string root = type(nodes_[0]);
  out += "// ---- message arena ----\n\n";
  out += "dympage* " + prefix_ + "create_allocator_f();\n";
  out += "void " + prefix_ + "destroy_allocator_f(dympage* arena);\n";
  out += "void* " + prefix_ + "allocate_block_f(dympage* arena, uint64_t size, uint64_t alignment);\n";
  out += "char* " + prefix_ + "allocate_text_f(dympage* arena, const char* text, uint64_t length);\n";
  out += "void " + prefix_ + "allocator_warn_sup_f();\n\n";
  out += "// ---- the whole message: 0, or -1 with the root's failure_reason set ----\n\n";
  out += "// Closes a complete message; changes nothing in this encoding.\n";
  out += "void " + prefix_ + "finalize_f(" + root + "* root);\n";
  out += "// Reads one message; the input must end with it.\n";
  out += "int " + prefix_ + "parse_bin_f(dympage* arena, " + root + "* root, istream* input);\n";
  out += "// Reads one message and leaves whatever follows it unread.\n";
  out += "int " + prefix_ + "parse_bin_tail_f(dympage* arena, " + root + "* root, istream* input);\n";
  out += "// Writes the message; every variant on the written path must be chosen.\n";
  out += "int " + prefix_ + "serialize_bin_f(" + root + "* root, ostream* output);\n\n";
  out += root + "* " + root + "___allocate_f(dympage* arena);\n\n";
  for (const Node& node : nodes_) declare_node(out, node);
  return out;
}

void Generator::declare_node(std::string& out, const Node& node) const {
  std::string holder = type(node);
  if (node.holder >= 0) {
    out += "// " + describe(node) + "\n";
    out += "// Used by the setters of its variant: makes the payload and stores it with the tag.\n";
    out += holder + "* " + holder + "___allocate_f(dympage* arena, " + type(nodes_[node.holder]) + "* holder);\n\n";
  }
  for (const Field& field : node.record->fields) {
    out += "// " + dotted(node) + "." + field.name + "\n";
    switch (field.kind) {
      case Kind::text:
        out += "int " + field_op(node, field, "iwrite_set") + "(dympage* arena, " + holder + "* holder, const char* text);\n";
        out += "char* " + field_op(node, field, "iwrite_alloc") + "(dympage* arena, " + holder + "* holder, uint64_t length);\n";
        break;
      case Kind::natural:
        out += "int " + field_op(node, field, "iwrite_set") + "(dympage* arena, " + holder + "* holder, int64_t value);\n";
        break;
      case Kind::variant:
        // Readers compare a variant's tag with these names, never with a number.
        for (const Alternative& alternative : field.alternatives)
          out += "constexpr uint32_t " + tag_name(node, field, alternative) + " = " +
                 std::to_string(alternative.tag) + ";\n";
        for (const Alternative& alternative : field.alternatives) {
          std::string payload = type(child(node, field, alternative));
          out += payload + "* " + field_op(node, field, "iwrite_setto___" + alternative.name) + "(dympage* arena, " + holder + "* holder);\n";
          out += payload + "* " + field_op(node, field, "iwrite_to___" + alternative.name) + "(dympage* arena, " + holder + "* holder);\n";
        }
        break;
      case Kind::collection: {
        std::string set = collection_type(node, field);
        out += "message_entry* " + field_op(node, field, "iwrite_create_entry") + "(dympage* arena, " + holder + "* holder, const char* text);\n";
        out += "void " + field_op(node, field, "iwrite_unlink_entry") + "(dympage* arena, " + holder + "* holder, const char* text);\n";
        out += "message_entry* " + set + "___find_f(" + holder + "* holder, const char* text);\n";
        out += "const message_entry* " + set + "___find_cf(const " + holder + "* holder, const char* text);\n";
        out += "// Iteration in ascending order; the state is the caller's, nothing is allocated.\n";
        out += "message_entry* " + set + "___it_init(message_entry* tree, message_cursor* state);\n";
        out += "message_entry* " + set + "___it_next(message_cursor* state);\n";
        out += "const message_entry* " + set + "___cit_init(const message_entry* tree, message_cursor* state);\n";
        out += "const message_entry* " + set + "___cit_next(message_cursor* state);\n";
        out += "constexpr uint64_t " + set + "___it_bsize = sizeof(message_cursor);\n";
        out += "// Inserts without looking for an equal text; iwrite_create_entry looks first.\n";
        out += "message_entry* " + set + "___allocate_f(dympage* arena, " + holder + "* holder, const char* text, uint64_t length);\n";
        out += "void " + set + "___unlink_f(" + holder + "* holder, const char* text);\n";
        break;
      }
    }
    out += "\n";
  }
}

// ---- source ------------------------------------------------------------

std::string Generator::source() const {
  std::string out;
  std::string root = type(nodes_[0]);
  out += "// The message module " + schema_.space + "::" + schema_.name + ", generated by schemagen.\n";
  out += "// Do not edit: change the schema file and rebuild.\n";
  out += "#include \"protocol/" + schema_.name + "/" + schema_.name + ".h\"\n\n";
  out += "namespace {\n\n";
  out += "// Readers and writers, one per record, in wire order. A reader returns\n";
  out += "// MESSAGE_STOP when it met a tag beyond the last alternative: the reading\n";
  out += "// ends there with success. A null node is an alternative whose setter was\n";
  out += "// refused; the refusal is already recorded.\n\n";
  for (size_t i = nodes_.size(); i-- > 0;) define_reader(out, nodes_[i]);
  for (size_t i = nodes_.size(); i-- > 0;) define_writer(out, nodes_[i]);
  out += "}  // namespace\n\n";

  out += "dympage* " + prefix_ + "create_allocator_f() { return message_arena_create(); }\n\n";
  out += "void " + prefix_ + "destroy_allocator_f(dympage* arena) { message_arena_destroy(arena); }\n\n";
  out += "void* " + prefix_ + "allocate_block_f(dympage* arena, uint64_t size, uint64_t alignment) {\n";
  out += "  return message_arena_block(arena, size, alignment);\n}\n\n";
  out += "char* " + prefix_ + "allocate_text_f(dympage* arena, const char* text, uint64_t length) {\n";
  out += "  return message_arena_text(arena, text, length);\n}\n\n";
  out += "void " + prefix_ + "allocator_warn_sup_f() {}\n\n";
  out += "// Collections are kept in order as they grow, so nothing is left to do.\n";
  out += "void " + prefix_ + "finalize_f(" + root + "* root) { (void)root; }\n\n";
  out += "int " + prefix_ + "parse_bin_tail_f(dympage* arena, " + root + "* root, istream* input) {\n";
  out += "  message_reader reader{arena, root, input};\n";
  out += "  if (message_read_fingerprint(&reader) != MESSAGE_PROCEED) return -1;\n";
  out += "  return " + local("read", nodes_[0]) + "(&reader, root) == MESSAGE_FAILED ? -1 : 0;\n}\n\n";
  out += "int " + prefix_ + "parse_bin_f(dympage* arena, " + root + "* root, istream* input) {\n";
  out += "  if (" + prefix_ + "parse_bin_tail_f(arena, root, input) != 0) return -1;\n";
  out += "  message_reader reader{arena, root, input};\n";
  out += "  return message_read_end(&reader) == MESSAGE_PROCEED ? 0 : -1;\n}\n\n";
  out += "int " + prefix_ + "serialize_bin_f(" + root + "* root, ostream* output) {\n";
  out += "  message_writer writer{root, output};\n";
  out += "  if (message_write_fingerprint(&writer) != 0) return -1;\n";
  out += "  return " + local("write", nodes_[0]) + "(&writer, root);\n}\n\n";
  out += root + "* " + root + "___allocate_f(dympage* arena) {\n";
  out += "  return message_node_allocate<" + root + ">(arena, nullptr);\n}\n\n";
  for (const Node& node : nodes_) define_node(out, node);
  return out;
}

void Generator::define_reader(std::string& out, const Node& node) const {
  std::string name = type(node);
  out += "// " + describe(node) + "\n";
  out += "message_step " + local("read", node) + "(message_reader* reader, " + name + "* node) {\n";
  out += "  if (node == nullptr) return MESSAGE_FAILED;\n";
  if (node.record->fields.empty()) out += "  (void)reader;\n";
  for (const Field& field : node.record->fields) {
    switch (field.kind) {
      case Kind::text:
        out += "  {  // " + field.name + ": text\n";
        out += "    uint64_t length;\n";
        out += "    if (message_read_text_length(reader, &length) != MESSAGE_PROCEED) return MESSAGE_FAILED;\n";
        out += "    char* text = " + field_op(node, field, "iwrite_alloc") + "(reader->arena, node, length);\n";
        out += "    if (message_read_text_bytes(reader, text, length) != MESSAGE_PROCEED) return MESSAGE_FAILED;\n";
        out += "  }\n";
        break;
      case Kind::natural:
        out += "  {  // " + field.name + ": natural number; a refused value stays unset and the reading goes on\n";
        out += "    int64_t value;\n";
        out += "    if (message_read_int64(reader, &value) != MESSAGE_PROCEED) return MESSAGE_FAILED;\n";
        out += "    " + field_op(node, field, "iwrite_set") + "(reader->arena, node, value);\n";
        out += "  }\n";
        break;
      case Kind::collection:
        out += "  // " + field.name + ": collection of texts\n";
        out += "  if (message_read_collection(reader, node, &node->" + field.name + ", \"duplicate entry in collection: " +
               field.name + "\") != MESSAGE_PROCEED)\n    return MESSAGE_FAILED;\n";
        break;
      case Kind::variant: {
        out += "  {  // " + field.name + ": variant\n";
        out += "    uint32_t tag;\n";
        out += "    if (message_read_uint32(reader, &tag) != MESSAGE_PROCEED) return MESSAGE_FAILED;\n";
        out += "    message_step step = MESSAGE_STOP;  // a tag beyond the last alternative\n";
        out += "    switch (tag) {\n";
        for (const Alternative& alternative : field.alternatives) {
          const Node& inner = child(node, field, alternative);
          out += "      case " + tag_name(node, field, alternative) + ":\n";
          out += "        step = " + local("read", inner) + "(reader, " +
                 field_op(node, field, "iwrite_setto___" + alternative.name) + "(reader->arena, node));\n";
          out += "        break;\n";
        }
        out += "    }\n";
        out += "    if (step != MESSAGE_PROCEED) return step;\n";
        out += "  }\n";
        break;
      }
    }
  }
  out += "  return MESSAGE_PROCEED;\n}\n\n";
}

void Generator::define_writer(std::string& out, const Node& node) const {
  std::string name = type(node);
  out += "// " + describe(node) + "\n";
  out += "int " + local("write", node) + "(message_writer* writer, const " + name + "* node) {\n";
  if (node.record->fields.empty()) {
    out += "  (void)writer;\n  (void)node;\n  return 0;\n}\n\n";
    return;
  }
  if (node.holder >= 0) {
    out += "  // Chosen by tag alone (an unset variant reads as tag 0): write the fields as unset.\n";
    out += "  static const " + name + " unset{};\n";
    out += "  if (node == nullptr) node = &unset;\n";
  }
  for (const Field& field : node.record->fields) {
    switch (field.kind) {
      case Kind::text:
        out += "  if (message_write_text(writer, &node->" + field.name + ") != 0) return -1;\n";
        break;
      case Kind::natural:
        out += "  if (message_write_int64(writer, node->" + field.name + ".value) != 0) return -1;\n";
        break;
      case Kind::collection:
        out += "  if (message_write_collection(writer, &node->" + field.name + ") != 0) return -1;\n";
        break;
      case Kind::variant: {
        out += "  // " + field.name + ": the tag, then the chosen alternative's fields\n";
        out += "  if (message_write_uint32(writer, node->" + field.name + ".tag) != 0) return -1;\n";
        out += "  switch (node->" + field.name + ".tag) {\n";
        for (const Alternative& alternative : field.alternatives) {
          const Node& inner = child(node, field, alternative);
          out += "    case " + tag_name(node, field, alternative) + ":\n";
          out += "      if (" + local("write", inner) + "(writer, static_cast<const " + type(inner) + "*>(node->" +
                 field.name + ".payload)) != 0)\n        return -1;\n";
          out += "      break;\n";
        }
        out += "  }\n";
        break;
      }
    }
  }
  out += "  return 0;\n}\n\n";
}

void Generator::define_node(std::string& out, const Node& node) const {
  std::string holder = type(node);
  out += "// ---- " + describe(node) + "\n\n";
  if (node.holder >= 0) {
    std::string outer = type(nodes_[node.holder]);
    const std::string& variant = node.variant->name;
    out += holder + "* " + holder + "___allocate_f(dympage* arena, " + outer + "* holder) {\n";
    out += "  auto* node = message_node_allocate<" + holder + ">(arena, holder);\n";
    const Node& outer_node = nodes_[node.holder];
    const Alternative* alternative = nullptr;
    for (const Alternative& candidate : node.variant->alternatives)
      if (&candidate.record == node.record) alternative = &candidate;
    out += "  holder->" + variant + ".tag = " + tag_name(outer_node, *node.variant, *alternative) + ";\n";
    out += "  holder->" + variant + ".payload = node;\n";
    out += "  return node;\n}\n\n";
  }
  for (const Field& field : node.record->fields) {
    switch (field.kind) {
      case Kind::text:
        out += "int " + field_op(node, field, "iwrite_set") + "(dympage* arena, " + holder + "* holder, const char* text) {\n";
        out += "  return message_text_set(arena, holder, &holder->" + field.name + ", text, " + refusal(field) + ");\n}\n\n";
        out += "char* " + field_op(node, field, "iwrite_alloc") + "(dympage* arena, " + holder + "* holder, uint64_t length) {\n";
        out += "  return message_text_alloc(arena, holder, &holder->" + field.name + ", length, " + refusal(field) + ");\n}\n\n";
        break;
      case Kind::natural:
        out += "int " + field_op(node, field, "iwrite_set") + "(dympage* arena, " + holder + "* holder, int64_t value) {\n";
        out += "  (void)arena;\n";
        out += "  return message_natural_set(holder, &holder->" + field.name + ", value, " + refusal(field) + ");\n}\n\n";
        break;
      case Kind::variant:
        for (const Alternative& alternative : field.alternatives) {
          std::string payload = type(child(node, field, alternative));
          out += payload + "* " + field_op(node, field, "iwrite_setto___" + alternative.name) + "(dympage* arena, " + holder + "* holder) {\n";
          out += "  if (message_variant_claim(holder, &holder->" + field.name + ", " + refusal(field) + ") != 0) return nullptr;\n";
          out += "  return " + payload + "___allocate_f(arena, holder);\n}\n\n";
          out += payload + "* " + field_op(node, field, "iwrite_to___" + alternative.name) + "(dympage* arena, " + holder + "* holder) {\n";
          out += "  bool refused;\n";
          out += "  void* chosen = message_variant_reuse(holder, &holder->" + field.name + ", " + tag_name(node, field, alternative) +
                 ", " + refusal(field) + ", &refused);\n";
          out += "  if (chosen != nullptr) return static_cast<" + payload + "*>(chosen);\n";
          out += "  if (refused) return nullptr;\n";
          out += "  return " + payload + "___allocate_f(arena, holder);\n}\n\n";
        }
        break;
      case Kind::collection: {
        std::string set = collection_type(node, field);
        std::string member = "holder->" + field.name;
        std::string duplicate = "\"duplicate entry in collection: " + field.name + "\"";
        out += "message_entry* " + field_op(node, field, "iwrite_create_entry") + "(dympage* arena, " + holder + "* holder, const char* text) {\n";
        out += "  return message_collection_create(arena, holder, &" + member + ", text, " + duplicate + ");\n}\n\n";
        out += "void " + field_op(node, field, "iwrite_unlink_entry") + "(dympage* arena, " + holder + "* holder, const char* text) {\n";
        out += "  (void)arena;\n  message_collection_unlink(&" + member + ", text);\n}\n\n";
        out += "message_entry* " + set + "___find_f(" + holder + "* holder, const char* text) {\n";
        out += "  return message_set_find(&" + member + ", text);\n}\n\n";
        out += "const message_entry* " + set + "___find_cf(const " + holder + "* holder, const char* text) {\n";
        out += "  return message_set_find(&" + member + ", text);\n}\n\n";
        out += "message_entry* " + set + "___it_init(message_entry* tree, message_cursor* state) {\n";
        out += "  state->current = message_set_first(tree);\n  return state->current;\n}\n\n";
        out += "message_entry* " + set + "___it_next(message_cursor* state) {\n";
        out += "  if (state->current != nullptr) state->current = message_set_next(state->current);\n";
        out += "  return state->current;\n}\n\n";
        out += "const message_entry* " + set + "___cit_init(const message_entry* tree, message_cursor* state) {\n";
        out += "  // The state is shared with it_next; nothing is written through it here.\n";
        out += "  return " + set + "___it_init(const_cast<message_entry*>(tree), state);\n}\n\n";
        out += "const message_entry* " + set + "___cit_next(message_cursor* state) { return " + set + "___it_next(state); }\n\n";
        out += "message_entry* " + set + "___allocate_f(dympage* arena, " + holder + "* holder, const char* text, uint64_t length) {\n";
        out += "  return message_collection_allocate(arena, holder, &" + member + ", text, length);\n}\n\n";
        out += "void " + set + "___unlink_f(" + holder + "* holder, const char* text) {\n";
        out += "  message_collection_unlink(&" + member + ", text);\n}\n\n";
        break;
      }
    }
  }
}

// The flat names make signatures long: a top-level declaration or definition
// that does not fit in 100 columns gets its return type on a line of its own
// and, if still too long, its parameters on the next line.
std::string wrap_long_signatures(const std::string& text) {
  constexpr size_t kWidth = 100;
  std::string out;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    size_t open = line.find('(');
    bool signature = line.size() > kWidth && open != std::string::npos && !line.empty() && line[0] != ' ' &&
                     line[0] != '/' && line[0] != '#' && line.compare(0, 7, "struct ") != 0 && line.find('=') > open;
    if (!signature) {
      out += line + "\n";
      continue;
    }
    size_t space = line.rfind(' ', open);
    std::string head = space == std::string::npos ? "" : line.substr(0, space);
    std::string rest = space == std::string::npos ? line : line.substr(space + 1);
    if (!head.empty()) out += head + "\n";
    if (rest.size() > kWidth) {
      size_t paren = rest.find('(');
      rest = rest.substr(0, paren + 1) + "\n    " + rest.substr(paren + 1);
    }
    out += rest + "\n";
  }
  return out;
}

// Writes only when the content changed, so that a rebuild of the generator
// does not recompile every user of an unchanged module.
bool write_file(const std::string& path, const std::string& text) {
  std::ifstream existing(path, std::ios::binary);
  if (existing) {
    std::stringstream old;
    old << existing.rdbuf();
    if (old.str() == text) return true;
  }
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  return static_cast<bool>(file.flush());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: schemagen SCHEMA-FILE OUTPUT-DIRECTORY\n");
    return 2;
  }
  std::ifstream file(argv[1], std::ios::binary);
  if (!file) {
    fprintf(stderr, "schemagen: cannot read %s\n", argv[1]);
    return 1;
  }
  std::stringstream text;
  text << file.rdbuf();
  Schema schema = Parser(argv[1], text.str()).parse();
  schema.source = text.str();
  Generator generator(schema);
  std::string base = std::string(argv[2]) + "/" + schema.name;
  if (!write_file(base + ".h", wrap_long_signatures(generator.header())) ||
      !write_file(base + ".cc", wrap_long_signatures(generator.source()))) {
    fprintf(stderr, "schemagen: cannot write %s.h and .cc\n", base.c_str());
    return 1;
  }
  return 0;
}
