#pragma once

#include "CanPropertySource/basecanpropertyreader.h"

// Readers for machines that need no more than the standard groups.
class GenericCanPropertyReader : public BaseCanPropertyReader {
public:
    void onManufacturerStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                             std::shared_ptr<CanInterface> can) override;
    void onManufacturerStop() override;
};

class AgcoBCanPropertyReader : public BaseCanPropertyReader {
public:
    void onManufacturerStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                             std::shared_ptr<CanInterface> can) override;
    void onManufacturerStop() override;
};

// Reached only as the last reader of a transition to BaseCanPropertyReader.
class EtCanPropertyReader : public BaseCanPropertyReader {
public:
    void onManufacturerStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                             std::shared_ptr<CanInterface> can) override;
    void onManufacturerStop() override;
};

// Fuel level comes from the product bus.
class AgcoCCanPropertyReader : public BaseCanPropertyReader {
public:
    AgcoCCanPropertyReader();
    void onManufacturerStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                             std::shared_ptr<CanInterface> can) override;
    void onManufacturerStop() override;
    void handleFEFCProduct(const PgnMessage& message);
};

// Fuel and DEF level come from the product bus.
class Agco900SeriesCanPropertyReader : public BaseCanPropertyReader {
public:
    Agco900SeriesCanPropertyReader();
    void onManufacturerStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                             std::shared_ptr<CanInterface> can) override;
    void onManufacturerStop() override;
    void handleFEFCProduct(const PgnMessage& message);
    void handleFE56Product(const PgnMessage& message);
};

// Fuel level comes from proprietary 0xFFEC.
class CaseCT56PropertyReader : public BaseCanPropertyReader {
public:
    CaseCT56PropertyReader();
    void onManufacturerStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                             std::shared_ptr<CanInterface> can) override;
    void onManufacturerStop() override;
    void handleFFEC(const PgnMessage& message);
};

// Hours and fuel level come from proprietary 0xFF12; the three differ in the fuel scaling.
class CasePatriotClass3PropertyReader : public BaseCanPropertyReader {
public:
    CasePatriotClass3PropertyReader();
    void onManufacturerStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                             std::shared_ptr<CanInterface> can) override;
    void onManufacturerStop() override;
    void handleFF12(const PgnMessage& message);
};

class CasePatriotClass4PropertyReader : public BaseCanPropertyReader {
public:
    CasePatriotClass4PropertyReader();
    void onManufacturerStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                             std::shared_ptr<CanInterface> can) override;
    void onManufacturerStop() override;
    void handleFF12(const PgnMessage& message);
};

class CaseTrident5550CanPropertyReader : public BaseCanPropertyReader {
public:
    CaseTrident5550CanPropertyReader();
    void onManufacturerStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                             std::shared_ptr<CanInterface> can) override;
    void onManufacturerStop() override;
    void handleFF12(const PgnMessage& message);
};
