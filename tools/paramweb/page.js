// Marks the fields the user changed and submits only those: the form text is
// lossy, so an untouched field must not be written back. A field is changed
// when it differs from the camera's value when the page was shown (its hidden
// "shown:" twin), so what was typed into a refused page stays a change.
document.querySelectorAll("form[action^='/page/']").forEach(function (form) {
  var inputs = Array.prototype.slice.call(form.querySelectorAll("input[name]:not([type=hidden])"));
  var twin = function (input) {
    return form.querySelector('input[type=hidden][name="shown:' + CSS.escape(input.name) + '"]');
  };
  var shown = function (input) { return twin(input) ? twin(input).value : input.defaultValue; };
  inputs.forEach(function (input) {
    var mark = function () { input.classList.toggle("changed", !input.disabled && input.value !== shown(input)); };
    input.addEventListener("input", mark);
    mark();
  });
  form.addEventListener("submit", function () {
    inputs.forEach(function (input) {
      if (input.disabled || input.value !== shown(input)) return;
      [input, twin(input)].forEach(function (e) { if (e) { e.disabled = true; e.dataset.unsent = "1"; } });
    });
  });
});
// A page brought back from the history keeps the fields the script disabled otherwise.
window.addEventListener("pageshow", function () {
  document.querySelectorAll("input[data-unsent]").forEach(function (input) {
    input.disabled = false;
    delete input.dataset.unsent;
  });
});
