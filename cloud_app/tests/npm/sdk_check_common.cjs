// What the two SDK check scripts share: loading an SDK from the installed peers folder (outside
// the source tree), running each case in order, and reporting a failure by the SDK's error class.
'use strict';
const path = require('path');
const { createRequire } = require('module');

// The one tool both scripts offer when a case asks for tools.
const TOOL_NAME = 'get_weather';
const TOOL_SCHEMA = { type: 'object', properties: { city: { type: 'string' } } };

function loadPackage(nodeModules, name) {
  return createRequire(path.join(nodeModules, 'index.js'))(name);
}

function clientOptions(options) {
  return {
    baseURL: options.baseURL,
    apiKey: options.apiKey,
    maxRetries: options.maxRetries ?? 0,
    timeout: options.timeoutMs ?? 10000,
  };
}

// Runs `complete(options)` for each case of the JSON argument (one case or a list) and prints
// the list of results: the answer's fields, or the error's class, status and message.
async function runCases(complete) {
  const argument = JSON.parse(process.argv[2]);
  const cases = Array.isArray(argument) ? argument : [argument];
  const results = [];
  for (const options of cases) {
    try {
      results.push({ ok: true, ...(await complete(options)) });
    } catch (error) {
      results.push({
        ok: false, errorClass: error.constructor.name, status: error.status ?? null, message: String(error.message),
      });
    }
  }
  console.log(JSON.stringify(results));
}

module.exports = { TOOL_NAME, TOOL_SCHEMA, loadPackage, clientOptions, runCases };
