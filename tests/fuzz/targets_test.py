"""Whether each parser has its fuzz target: fuzz/targets.ini against the headers, which are searched for what is named
like a parser, and against the targets, which have to mention what they are said to run."""

import pathlib
import re
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts/trust"))

import fuzzing  # noqa: E402

FOLDERS = ("src", "platform", "apps", "sdk")
# What functions are named that take texts or bytes of others apart, and what classes that do.
FUNCTION = re.compile(r"\b((?:Parse|Read|Decode|Split|Normali[sz]e|Deal|Mask|Unescape|Tokeni[sz]e|Scan|Unpack|Extract|Lenient"
                      r"|Base64Decode|QueryParameter|Feed)\w*|set_str|get_v|get_int_v|get_cnt)\s*\(")
CLASS = re.compile(r"\bclass\s+(\w*(?:Reader|Parser|Decoder|Scanner|Tokenizer|Proto|Utf8Check|Lines))\b(?!\s*;)")
COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/", re.DOTALL)


def found(root):
    """(header, name) of all that is named like a parser."""
    parsers = set()
    for folder in FOLDERS:
        for header in sorted((root / folder).rglob("*.h")):
            text = COMMENT.sub("", header.read_text())
            names = FUNCTION.findall(text) + CLASS.findall(text)
            parsers |= {(str(header.relative_to(root)), name) for name in names}
    return parsers


def faults(root):
    """What is missing, a line each."""
    targets, exceptions = fuzzing.read_list(root / "fuzz/targets.ini")
    cmake = (root / "fuzz/CMakeLists.txt").read_text()
    built = set(re.findall(r"^tolm_fuzz\((\w+)", cmake, re.MULTILINE))
    listed = {(header, name) for target in targets for header, names in target.parsers.items() for name in names}
    lines = [f"{header}: {name} has neither a fuzz target nor an exception"
             for header, name in sorted(found(root) - listed - exceptions.keys())]
    lines += [f"{header}: {name} is listed and has an exception" for header, name in sorted(listed & exceptions.keys())]
    for header, name in sorted(listed | exceptions.keys()):
        path = root / header
        if not path.is_file() or not re.search(rf"\b{name}\b", path.read_text()):
            lines.append(f"{header}: {name} is listed and not there")
    lines += [f"the exception of {name} has no reason" for (_, name), reason in exceptions.items() if not reason.strip()]
    lines += [f"{name} is built and not listed" for name in sorted(built - {target.name for target in targets})]
    for target in targets:
        if target.name not in built:
            lines.append(f"{target.name} is listed and not built")
        source = root / "fuzz" / f"{target.name}.cpp"
        text = COMMENT.sub("", source.read_text()) if source.is_file() else ""
        lines += [f"fuzz/{target.name}.cpp does not mention {name}" for names in target.parsers.values() for name in names
                  if not re.search(rf"\b{name}\b", text)]
        lines += [f"{target.name}: {own} is not there" for own in target.sources if not (root / own).is_file()]
        seeds = root / "fuzz/corpus" / target.name
        if not seeds.is_dir() or not any(seeds.iterdir()):
            lines.append(f"{target.name} has no seeds")
        if not (root / "fuzz" / f"{target.name}.dict").is_file():
            lines.append(f"{target.name} has no dictionary")
    return lines


class TheTree(unittest.TestCase):
    def test_each_parser_has_a_target(self):
        self.assertEqual(faults(ROOT), [])


class AScratchTree(unittest.TestCase):
    """The comparison itself: a tree that is in order, and one thing wrong in it at a time."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        self.write("src/Url.h", "// ReadComment(x)\nbool ParseUrl(const std::string& url);\nclass UrlReader {\n};\n")
        self.write("src/Url.cpp", "bool ParseUrl(const std::string&) { return true; }\n")
        self.write("fuzz/url.cpp", "// A url.\nint main() { UrlReader().Use(ParseUrl({})); }\n")
        self.write("fuzz/url.dict", '"/"\n')
        self.write("fuzz/corpus/url/plain", "/a")
        self.write("fuzz/CMakeLists.txt", "tolm_fuzz(url LIBS url)\n")
        self.write("fuzz/targets.ini", "[url]\nsources = src/Url.cpp\nparsers =\n  src/Url.h: ParseUrl UrlReader\n")

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def test_is_in_order(self):
        self.assertEqual(faults(self.root), [])

    def test_a_new_function_without_a_target(self):
        self.write("platform/New.h", "std::string DecodeNew(std::string_view bytes);\n")
        self.assertEqual(faults(self.root), ["platform/New.h: DecodeNew has neither a fuzz target nor an exception"])

    def test_a_new_class_without_a_target(self):
        self.write("apps/New.h", "class NewParser final {\n};\n")
        self.assertEqual(faults(self.root), ["apps/New.h: NewParser has neither a fuzz target nor an exception"])

    def test_an_exception_needs_its_reason(self):
        self.write("src/New.h", "int ReadNew();\n")
        ini = (self.root / "fuzz/targets.ini").read_text()
        self.write("fuzz/targets.ini", ini + "[exceptions]\nsrc/New.h: ReadNew = the system's own words\n")
        self.assertEqual(faults(self.root), [])
        self.write("fuzz/targets.ini", ini + "[exceptions]\nsrc/New.h: ReadNew =\n")
        self.assertEqual(faults(self.root), ["the exception of ReadNew has no reason"])

    def test_a_parser_that_is_gone(self):
        self.write("src/Url.h", "class UrlReader {\n};\n")
        self.assertEqual(faults(self.root), ["src/Url.h: ParseUrl is listed and not there"])

    def test_a_target_that_does_not_run_its_parser(self):
        self.write("fuzz/url.cpp", "// ParseUrl\nint main() { UrlReader(); }\n")
        self.assertEqual(faults(self.root), ["fuzz/url.cpp does not mention ParseUrl"])

    def test_a_target_that_is_not_built(self):
        self.write("fuzz/CMakeLists.txt", "")
        self.assertEqual(faults(self.root), ["url is listed and not built"])

    def test_a_target_without_seeds_and_words(self):
        (self.root / "fuzz/corpus/url/plain").unlink()
        (self.root / "fuzz/url.dict").unlink()
        self.assertEqual(faults(self.root), ["url has no seeds", "url has no dictionary"])


if __name__ == "__main__":
    unittest.main()
