local json = require("vex.json")
local lu = require("luaunit")

local M = { TestEncode = {}, TestDecode = {} }

function M.TestEncode:test_scalars()
  lu.assertEquals(json.encode("a"), '"a"')
  lu.assertEquals(json.encode(true), "true")
  lu.assertEquals(json.encode(json.null), "null")
  lu.assertEquals(json.encode(3), "3")
  lu.assertEquals(json.encode(-0.5), "-0.5")
  lu.assertEquals(json.encode(2 ^ 53 - 1), "9007199254740991")
end

function M.TestEncode:test_a_number_reads_back_as_itself()
  for _, number in ipairs({ 0.1, 1 / 3, 1e300, -2 ^ 60, 5e-324, 123456789.123456789 }) do
    lu.assertEquals(json.decode(json.encode(number)), number)
  end
end

function M.TestEncode:test_what_json_cannot_hold_is_told()
  for value, word in pairs({ [0 / 0 ~= 0 / 0 and math.huge or 1] = "number", [print] = "function" }) do
    local text, message = json.encode(value)
    lu.assertNil(text)
    lu.assertStrContains(message, word)
  end
  lu.assertNil((json.encode(0 / 0)))
  lu.assertNil((json.encode({ [1.5] = 1 })))
end

function M.TestEncode:test_a_failure_names_its_place()
  local cases = {
    ["cannot encode a number that JSON cannot hold at 'a.b[2].c'"] = { a = { b = { 1, { c = 1 / 0 } } } },
    ["cannot encode a value of type function at '[2]'"] = { 1, print },
    ["cannot encode a key of type boolean at 'deep'"] = { deep = { [true] = 1 } },
    ["cannot encode a value of type function"] = print,
  }
  for expected, value in pairs(cases) do
    local text, message = json.encode(value)
    lu.assertNil(text)
    lu.assertEquals(message, expected)
  end
end

function M.TestEncode:test_a_number_that_is_none_is_null_and_told_to_who_wants_that()
  local places = {}
  local text = json.encode({ a = 1 / 0, b = { -1 / 0, 0 / 0, 5 } }, nil, {
    on_no_number = function(place) places[#places + 1] = place end,
  })
  lu.assertEquals(text, '{"a":null,"b":[null,null,5]}')
  lu.assertEquals(places, { "a", "b[1]", "b[2]" })
end

function M.TestEncode:test_empty_tables_below_the_value_are_arrays_on_request_unless_they_are_marked()
  local options = { empty_arrays = true }
  lu.assertEquals(json.encode({ a = {}, b = json.object() }, nil, options), '{"a":[],"b":{}}')
  lu.assertEquals(json.encode({}, nil, options), "{}")
  lu.assertEquals(json.encode(json.decode('{"a":{},"b":[]}'), nil, options), '{"a":{},"b":[]}')
end

function M.TestEncode:test_control_characters_and_line_ends_beyond_ascii_are_escaped()
  lu.assertEquals(json.encode("\194\128\194\159\194\160\226\128\168\226\128\169\226\128\170"),
    '"\\u0080\\u009f\194\160\\u2028\\u2029\226\128\170"')
end

function M.TestEncode:test_a_table_that_contains_itself_is_told_and_one_used_twice_is_fine()
  local circle = {}
  circle.inner = { circle }
  lu.assertStrContains(select(2, json.encode(circle)), "contains itself")
  local shared = { 1 }
  lu.assertEquals(json.encode({ a = shared, b = shared }), '{"a":[1],"b":[1]}')
end

function M.TestEncode:test_keys_are_sorted()
  lu.assertEquals(json.encode({ b = 1, a = 2, c = { d = 3 } }), '{"a":2,"b":1,"c":{"d":3}}')
end

function M.TestEncode:test_a_text_that_is_json_already_is_written_as_it_is()
  lu.assertEquals(json.encode({ a = json.raw('{"b":[]}'), c = 1 }), '{"a":{"b":[]},"c":1}')
end

function M.TestEncode:test_an_empty_table_is_an_object_unless_it_is_marked()
  lu.assertEquals(json.encode({}), "{}")
  lu.assertEquals(json.encode(json.array()), "[]")
end

function M.TestEncode:test_control_characters_and_quotes_are_escaped()
  lu.assertEquals(json.encode('a"b\\c\n\1\127'), [["a\"b\\c\n\u0001\u007f"]])
end

function M.TestEncode:test_bytes_that_are_not_utf8_are_replaced()
  lu.assertEquals(json.encode({ ["k\255"] = "/mnt/caf\233 é" }), '{"k\239\191\189":"/mnt/caf\239\191\189 é"}')
end

function M.TestEncode:test_indentation()
  lu.assertEquals(json.encode({ a = { 1, 2 }, b = {} }, "  "), '{\n  "a": [\n    1,\n    2\n  ],\n  "b": {}\n}')
end

function M.TestDecode:test_all_kinds_of_values()
  local value = json.decode(' { "a" : [ 1 , -2.5e2 , true , false , null , "x" ] , "b" : { } } ')
  lu.assertEquals(value.a[1], 1)
  lu.assertEquals(value.a[2], -250)
  lu.assertIs(value.a[5], json.null)
  lu.assertEquals(value.a[6], "x")
  lu.assertEquals(next(value.b), nil)
end

function M.TestDecode:test_escapes_and_surrogate_pairs()
  lu.assertEquals(json.decode([["\u00e9\u20AC\ud83d\ude00\n\/"]]), "é€😀\n/")
end

function M.TestDecode:test_an_empty_array_stays_one()
  lu.assertEquals(json.encode(json.decode("[]")), "[]")
end

function M.TestDecode:test_every_mistake_is_told_with_its_place()
  local mistakes = {
    "", "{", "[1,]", '{"a"}', '{"a":1,}', "[1 2]", "01", "-", "1.e", "tru",
    '"a', '"\\x"', '"\\u12"', '"\\ud800"', '"\n"',
    "1 2", "nan", "'a'", '{a:1}', ("["):rep(300),
  }
  for _, text in ipairs(mistakes) do
    local value, message = json.decode(text)
    lu.assertNil(value, text)
    lu.assertStrMatches(message, "not JSON at byte %d+: .+")
  end
end

return M
