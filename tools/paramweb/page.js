// Marks the fields the user changed and submits only those: the form text
// is lossy, so an untouched field must not be written back.
document.querySelectorAll("form").forEach(function (form) {
  var inputs = Array.prototype.slice.call(form.querySelectorAll("input[name]"));
  inputs.forEach(function (input) {
    input.addEventListener("input", function () {
      input.classList.toggle("changed", input.value !== input.defaultValue);
    });
  });
  form.addEventListener("submit", function () {
    inputs.forEach(function (input) {
      if (input.value === input.defaultValue) input.disabled = true;
    });
  });
});
// A page brought back from the history keeps its disabled fields otherwise.
window.addEventListener("pageshow", function () {
  document.querySelectorAll("input[name]").forEach(function (input) { input.disabled = false; });
});
